/*
 * The end point of the Wi-Fi speed test, which a daemon of the device provides: switched on through the
 * configuration daemon, and off again after a while. Each switching blocks for at most two calls of
 * device/scm.h.
 */
#pragma once

#include <cstdint>

enum { WIFIPERF_SECONDS = 900 }; /* how long it is on after the last start */

extern int32_t wifiperf_running; /* 1 while it is on */

/* Switches it on where it is off, and lets it be on for the whole time again. Returns 0, or -1 with a log
 * line. */
int start_wifiperf(void);

/* Switches it off where it is on. Returns 0, or -1 with a log line: it is still on then, until the next
 * configuration update. */
int stop_wifiperf(void);

/* After a configuration update, which it does not survive: switches it off, where it is on. */
void stop_running_wifiperf(void);

/* The time is over: "COMMAND COMPLETE". */
void wifiperf_timeout_cb(void *name);

/* For tests: off, and no timer. */
void wifiperf_reset(void);
