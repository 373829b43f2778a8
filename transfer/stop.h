/*
 * Being told to end. The signals are never delivered: they wait in a descriptor, and a transfer looks there
 * wherever it waits. So nothing is ever interrupted half done.
 */
#pragma once

#include <cstdint>

/* Holds SIGTERM, SIGINT, SIGHUP and SIGQUIT back from now on; SIGPIPE and SIGXFSZ become errors of the call.
 * Returns 0, or -1 with errno. */
int stop_listen(void);

/* Readable when a signal waits; for curl_multi_poll. */
int stop_fd(void);

/* The signal that has come, or 0. Once it has, it stays. */
int stop_signal(void);

/* Waits so long, or until a signal comes. Returns as stop_signal does. */
int stop_wait(int64_t milliseconds);

/* Waits so long, whatever comes. */
void pause_ms(int milliseconds);

/* Milliseconds of the monotonic clock. */
int64_t monotonic_ms(void);
