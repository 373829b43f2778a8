/*
 * A websocket library that obeys the test: it reports what the test says, takes every frame and keeps it.
 * Where the real one would end the process by an assertion, because of a call out of place, the test fails.
 */
#pragma once

#include <climits>
#include <cstddef>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include <libwebsockets.h>
#include <openssl/ssl.h>

enum {
    FAKE_TAKES_ALL = INT_MAX,
    FAKE_CLOSE_FRAME = 4, /* the mode of a close frame, which the library's own enum no longer names */
};

/* What the agent asked a connection to be. */
struct fake_connect {
    std::string address, host, origin, path, protocol;
    int port, version, flags;
};

/* What stands on the wire: data frames by their mode, a close frame as FAKE_CLOSE_FRAME with its status in
 * front. */
struct fake_frame {
    std::string payload;
    int mode;
};

struct fake_library {
    /* what it shall do */
    bool refuses_context = false;
    bool refuses_connection = false;       /* the connect call yields no handle */
    bool reports_error_in_connect = false; /* and tells its reason before it returns */
    bool swallows_closures = false;        /* a killed connection is never reported */
    int takes = FAKE_TAKES_ALL;            /* what a write returns, the whole length at most */
    unsigned int response = 0;             /* of a refused upgrade: code and status text */
    std::string status_text;
    size_t remaining = 0; /* of the piece that is being delivered */
    bool final_fragment = true;
    int hidden_services = 0;                  /* how often it wants to be served again at once */
    SSL_CTX *ssl_context = nullptr;           /* offered while a context is made */
    std::deque<std::function<void()>> script; /* run, one each, by the coming services */

    /* what happened */
    std::vector<fake_connect> connects;
    std::vector<fake_frame> wire;
    int contexts_made = 0;
    int contexts_destroyed = 0;
    int services = 0;
    int kills = 0;
    int writable_requests = 0;
    int drops = 0; /* callbacks that asked for the connection to be dropped */
    lws_context_creation_info creation = {};
    lws_protocols protocol = {};
    lws_retry_bo_t policy = {};
    int log_mask = 0;

    bool echoes = false; /* frames are also told on standard error, for programs that end */
};

extern fake_library library;

/* Forgets every handle and everything above. The agent must have forgotten them before. */
void fake_lws_reset(void);

/* The newest handle, null when there is none that lives. */
lws *fake_handle(void);

/* How many handles live, and of one of them: its descriptor, whether it is established, whether the agent's
 * close frame went out on it. */
int fake_live_handles(void);
int fake_descriptor(const lws *wsi);
bool fake_is_established(const lws *wsi);
bool fake_is_closing(const lws *wsi);

/* What the library reports about a handle, called as from inside the library. Closed and refused end the
 * handle. */
int fake_report(lws *wsi, enum lws_callback_reasons reason, const void *in = nullptr, size_t len = 0);
void fake_established(lws *wsi);
void fake_closed(lws *wsi);
void fake_refused(lws *wsi);

/*
 * A piece of a message: what is still to come of its frame, and whether the frame is the message's last. A
 * callback that does not return 0 loses the connection.
 */
int fake_receive(lws *wsi, const std::string &piece, size_t remaining = 0, bool final = true);

/* Makes the descriptor of a handle readable. */
void fake_make_readable(lws *wsi);

/* The frames on the wire with their modes: "1:text 137:ping". */
std::string fake_wire_text(void);
