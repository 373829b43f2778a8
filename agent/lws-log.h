/*
 * The websocket library's own messages, in a log of their own: "/var/log/lws.log", with the rotation and time
 * stamp of the agent's log.
 */
#pragma once

#define LWS_LOG_FILE "/var/log/lws.log"

/*
 * The library's message classes that are asked for: error (1), notice (4), info (8) and debug (16). Warnings
 * (2) are left out on purpose.
 */
enum { LWS_LOG_MASK = 29 };

/* Writes one line when da.debug_level is at least `level`. */
void lws_log(int level, const char *format, ...) __attribute__((format(printf, 2, 3)));

/* What the library calls with each message; filters by class and da.debug_level. */
void lws_log_hook(int lws_level, const char *text);
