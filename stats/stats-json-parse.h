/*
 * Statistics requests of the controller: reading and checking them.
 *
 * {"stats": [{"index": 2..7, "interval": seconds, "fields": [name...], "tables": {name: [column...]}}...]}
 */
#pragma once

#include <jansson.h>

/* What kind of one-time report is wanted. */
enum stats_kind {
    STATS_ON_DEMAND = 0,
    STATS_DEVICE_INFO = 1,
    STATS_CUSTOM = 2, /* "subType" of the message says which, 240 unless told */
};

/*
 * Starts the periodic reports of a 103; a slot that is in use takes the new request. Returns 0, also for a
 * message without "stats"; 1 with the error text set; or -1 without an object. The objects before a bad one
 * stay in force.
 */
int parse_stats_request(const json_t *obj, char *error_text);

/*
 * Asks for one report (104, 122, 124), which arrives later. Returns 0 or a failed status with the error text
 * set; -1 stands for a bad request, too. Without "stats" the report is asked for with empty lists.
 */
int parse_build_on_demand_stats(const json_t *obj, char *error_text, stats_kind kind);
