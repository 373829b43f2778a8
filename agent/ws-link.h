/*
 * The websocket library's side of the controller connection: its context, the one connection handle, and the
 * descriptor that the event loop watches for it.
 *
 * Rules of the library that everything here obeys: after an error or a close the handle is dangling, so `wsi`
 * is cleared before anything else; a descriptor that the library holds is closed by the library alone; frames
 * are written only between established and closed, and only in its writable callback.
 */
#pragma once

#include <cstdint>

#include <libwebsockets.h>

#include "agent/ev.h"
#include "agent/ws-target.h"
#include "agent/ws-timers.h"

/* The session's variables. Flags are 0 or 1. */
struct websocket_session {
    lws_context *context;       /* made for the first connection, kept until destroyed */
    lws *wsi;                   /* the connection, null when there is none */
    int32_t websock_fd;         /* its descriptor, -1 when none */
    uint32_t connection;        /* counts connections: what happened on an older one is ignored */
    bool established;           /* the upgrade succeeded: frames may be written */
    bool closing;               /* a close frame went out: nothing may follow it */
    bool in_library;            /* a call of the library is on the stack */
    int32_t pong_received;      /* a pong came since the last ping cycle */
    int32_t pong_loss;          /* consecutive ping cycles without one, also sent inside the ping */
    int32_t close_pending;      /* a close "DEV_REBOOT" goes out at the next writable callback */
    int32_t destroy_pending;    /* a close frame was sent, the closure is expected */
    int32_t connect_attempts;   /* consecutive connect time-outs */
    int32_t reconnect_attempts; /* consecutive waits for reconnect */
    int32_t reconnect_scheduled;
};
extern websocket_session ws;

/*
 * While a connection comes up or goes down the library waits for more than the descriptor tells: starts "LWS
 * SERVICE", which serves it once a second. An established connection needs no such timer.
 */
void ws_keep_serving(void);

/* Who is called by the library and by the event loop; set once at start, before anything else here is used.
 */
void ws_link_init(lws_callback_function *library_callback, ev_fd_callback fd_callback);

/* Makes the context if there is none. Returns 0, or -1. */
int ws_create_context(void);

/* Starts a connection to ws_target. Returns 0 when a handle was made; its fate is reported by callbacks. */
int ws_connect(void);

/* Gives the connection up without a word: its callbacks are ignored from here on. */
void ws_drop(void);

/*
 * Makes the library end the connection: a close frame that was prepared is put on the wire. Whatever it
 * reports meanwhile is noted. Not inside the library.
 */
void ws_kill(void);

/* Destroys the context and with it the connection; the next connection makes a new one. */
void ws_destroy_context(void);

/*
 * Watches the connection's descriptor for these events (EV_READ, EV_WRITE), instead of what it was watched
 * for. Nothing happens without a descriptor.
 */
void ws_watch(uint32_t events);

/* Watches for reading and writing and asks the library for its writable callback, where frames may be
 * written. */
void ws_request_writable(void);

/*
 * Lets the library do what is due: descriptors that are ready, its own timers, and bytes that TLS has
 * decrypted but that no descriptor will announce.
 */
void ws_serve_library(void);

/* Puts the variables back to what they are at start, for tests; the context must be gone. */
void ws_link_reset(void);
