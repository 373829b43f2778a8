/*
 * The websocket session: what the library reports about the connection, and the loop's callback that lets the
 * library work. The library's callback only notes what happened (and writes frames when it
 * is the writable one); it is acted upon, in order, when the library
 * has returned, so no message handler, child or signal ever runs inside it.
 */
#pragma once

#include <cstdint>

#include <libwebsockets.h>

/* Tells the link whom to call. Once, at start. */
void ws_session_init(void);

/*
 * The protocol callback of "websock_protocol". Returns 0, or -1 to make the library drop the connection
 * (after the reboot close frame, or when a message cannot be held).
 */
int callback_websocket(lws *wsi, enum lws_callback_reasons reason, void *user, void *in, size_t len);

/* The loop's callback for the connection's descriptor. */
void ws_fd_event_cb(int32_t fd, int32_t event, void *context);

/* Acts upon what the library reported; after every call into it that may report something. */
void ws_handle_events(void);

/* Forgets everything, for tests; the library's context must be gone. */
void ws_session_reset(void);
