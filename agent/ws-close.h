/*
 * Ending the connection: close frames with a reason, and the forced clean-up when the library does not report
 * the closure.
 */
#pragma once

#include <cstddef>

/*
 * Sends a close frame with status 1000 and the reason (at most 123 bytes, RFC 6455 5.5), and remembers the
 * reason on flash while connected. The frame is on the wire when the call
 * returns, if the socket takes it; inside the writable callback it follows the return of -1. Returns 0 or -1.
 * Nothing may be sent behind it; the closure is reported by the library, or see expect_closure.
 */
int send_close_frame_to_orvanta(const char *reason, size_t len);

/* A close frame went out: if the closure is not reported within 30 s ("WS DESTROY"), it is forced. */
void expect_closure(void);

/* Asks for an orderly close with "DEV_REBOOT", before reboots and upgrades. Nothing happens unless connected.
 */
void close_websocket(void);

/* Destroys the library's context; the next connection makes a new one. */
void destroy_lws_context(void);

/* Callbacks of the timers "WS DESTROY" and "DA DISCONNECT". */
void ws_destroy_cb(void *name);
void da_disconnect(void *name);

/*
 * Everything that belongs to a connection and must not outlive it: queued frames, a half received message,
 * flags and timers of the session. The handle itself is dropped too.
 */
void ws_forget_leftovers(void);
