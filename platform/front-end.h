/*
 * The connection of the device's web front end: it sends requests (operations/front-end-requests.h) and
 * receives their output, one packet for each message. There is at most one; a newer one takes its place.
 */
#pragma once

#include <cstddef>
#include <cstdint>

#define FRONT_END_SOCKET "/var/tmp/agent_cgiserver"

extern int32_t fcgi_client_fd; /* the accepted connection, -1 when there is none */

/*
 * Makes this descriptor, which is taken over, the connection and watches it with the callback. The one before
 * is closed; a command that runs for it runs on and writes to the new one. Returns 0, or -1 with the
 * descriptor closed and the old connection untouched.
 */
int front_end_take(int32_t fd, void (*callback)(int32_t fd, int32_t event, void *arg));

/* Stops watching the connection and closes it, if there is one. */
void front_end_drop(void);

/* Whether it takes packets now. Without a connection, too: there is nobody to wait for. */
bool front_end_ready(void);

/* Calls `resume`, once, when the connection takes packets again, or is gone. Another one takes its place. */
void front_end_wait(void (*resume)(void));

/* Sends a text as one packet without waiting. Always 0: what cannot be sent is lost, with a log line. */
int write_to_fcgi(const char *text, size_t length);
