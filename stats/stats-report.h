/*
 * A report of statistics on its way to the controller.
 */
#pragma once

#include <cstdint>

#include <jansson.h>

#include "agent/owners.h"

/* Kinds of reports, as the statistics daemon is asked for them and echoes them. Any other is sent as 404. */
enum {
    REPORT_ON_DEMAND = 0,      /* 404 */
    REPORT_PERIODIC = 1,       /* 403, with the slot's index */
    REPORT_FIRST_CUSTOM = 240, /* 424, with the kind as "subType" */
    REPORT_LAST_CUSTOM = 254,
    REPORT_DEVICE_INFO = 255, /* 422 */
};

/* The text of a report with these statistics, which it takes over; null when it cannot be serialised. */
malloc_text stats_report(json_ptr stats, int32_t periodic, int32_t index, int32_t session);

/* Sends a report of this kind. Returns what write_to_orv returns, or -1 for a null text. */
int send_stats_to_orv(const malloc_text &report, int32_t periodic);
