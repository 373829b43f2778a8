/*
 * Periodic reports: the timers of the slots, and how they end. Reports stop with the connection; the
 * controller asks again when it is back.
 */
#pragma once

#include <jansson.h>

#include "stats/stats-info.h"

/* (Re)starts the slot's timer for its interval. Returns 0, or -1 when memory is short. */
int start_stats_timer(stats_slot *slot);

/* Stops the slot's timer; harmless when it is not running. */
void stop_stats_timer(stats_slot *slot);

/* Callback of a slot's timer; the argument is the slot. */
void stats_timer_cb(void *slot);

/*
 * Ends the periodic request of a slot: {"index": 0..7}, 0 when there is none. Its timer fires once more and
 * finds the slot inactive. Returns 0, or 1 with the error text set.
 */
int stop_stats_request(const json_t *obj, char *error_text);

/* Ends every periodic request whose timer runs: the connection came up or went down. */
void cancel_stats_timers(void);
