#include "agent/ws-session.h"

#include <cstring>
#include <deque>
#include <new>
#include <string>
#include <utility>

#include <openssl/ssl.h>

#include "agent/da.h"
#include "agent/debug-log.h"
#include "agent/enter-state.h"
#include "agent/hooks.h"
#include "agent/named-timer.h"
#include "agent/text.h"
#include "agent/txq.h"
#include "agent/ws-close.h"
#include "agent/ws-link.h"
#include "agent/ws-ping.h"
#include "agent/ws-rx.h"
#include "discovery/cert-verify.h"
#include "platform/state-files.h"

#define MODULE "device-agent.c"

static const char *const self = "callback_websocket";

/* ---- what the library reported, in order ---- */

enum session_event { SESSION_ESTABLISHED, SESSION_MESSAGE, SESSION_PONG, SESSION_ERROR, SESSION_CLOSED };

struct noted_event {
    session_event event;
    uint32_t connection; /* the connection it happened on */
    std::string message;
};

static std::deque<noted_event> noted;

static void note(session_event event, std::string message = std::string())
{
    noted.push_back({event, ws.connection, std::move(message)});
}

/* ---- acting upon it, outside the library ---- */

static void on_connection_error(void)
{
    ev_del_fd(ws.websock_fd);
    ws.websock_fd = -1;
    ws.connect_attempts = 0;
    LOG(LOG_FAILURE, "%s: LWS_CALLBACK_CLIENT_CONNECTION_ERROR (ctimer=%p)", self,
        static_cast<void *>(connect_timer.handle));
    if (!connect_timer.handle)
        return;
    timer_disarm(connect_timer);
    if (da.state != DA_STATE_CONNECTING && da.state != DA_STATE_CONNECTED) {
        LOG(LOG_TRACE, "Da state is not connecting/connected, bail out");
        return;
    }
    if (ws.reconnect_scheduled)
        return;
    ws.reconnect_scheduled = 1;
    call_hook(hooks.wait_for_reconnect);
}

static void on_established(void)
{
    LOG(LOG_TRACE, "%s: LWS_CALLBACK_CLIENT_ESTABLISHED", self);
    ws.connect_attempts = 0;
    timer_disarm(connect_timer);
    LOG(LOG_TRACE, "Cleanup any leftover stats requests/timers");
    call_hook(hooks.cancel_periodic_stats);
    da_enter_state(DA_STATE_CONNECTED);
    start_pings();
}

static void on_closed(void)
{
    ws.connect_attempts = 0;
    LOG(LOG_FAILURE, "%s: LWS_CALLBACK_CLOSED", self);
    ws.destroy_pending = 0;
    purge_txq();
    cancel_ping_timer();
    da_enter_state(DA_STATE_DISCONNECTED);
}

static void act_upon(noted_event &happened)
{
    switch (happened.event) {
    case SESSION_ESTABLISHED: on_established(); break;
    case SESSION_PONG: pong_received(); break;
    case SESSION_ERROR: on_connection_error(); break;
    case SESSION_CLOSED: on_closed(); break;
    case SESSION_MESSAGE:
        /* The handler terminates the text: a std::string has that byte. */
        call_hook(hooks.handle_orv_msg, happened.message.data(), happened.message.size(),
                  static_cast<void *>(ws.context));
        break;
    }
}

void ws_handle_events(void)
{
    while (!noted.empty()) {
        noted_event happened = std::move(noted.front());
        noted.pop_front();
        if (happened.connection == ws.connection)
            act_upon(happened);
    }
}

/* ---- the library's callback ---- */

/* The one callback that comes without a connection: once for each context, while it is made. */
static void on_load_certificates(void *ssl_context)
{
    LOG(LOG_TRACE, "LWS_CALLBACK_OPENSSL_LOAD_EXTRA_CLIENT_VERIFY_CERTS");
    auto *context = static_cast<SSL_CTX *>(ssl_context);
    SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
    SSL_CTX_load_verify_dir(context, platform_ca_certs_path());
    /* The host text is live: the context outlives a change of controller. */
    SSL_CTX_set_cert_verify_callback(context, ssl_cert_verify_callback, ws_target.host);
}

/* Why the server refused the upgrade, when it answered at all. */
static void log_refusal(lws *wsi)
{
    unsigned int status = lws_http_client_http_response(wsi);
    char text[1024] = "";
    if (status != 0 && status != 101 && lws_hdr_copy(wsi, text, sizeof(text), WSI_TOKEN_HTTP) > 0)
        LOG(LOG_FAILURE, "Websocket rejected by server %s", text);
}

/* The handle is dangling from here on. */
static void lose_handle(session_event verdict)
{
    note(verdict);
    ws.wsi = nullptr;
    ws.established = false;
    ws.closing = false;
}

static int on_receive(lws *wsi, const char *in, size_t len)
{
    LOG(LOG_TRACE, "%s: LWS_CALLBACK_CLIENT_RECEIVE", self);
    int length = static_cast<int>(len);
    LOG(LOG_TRACE, "rx %d [%.*s]", length, length, in ? in : "");
    size_t remaining = lws_remaining_packet_payload(wsi);
    LOG(LOG_TRACE, "PayLoad remaining is %d", clamp_to_int32(static_cast<int64_t>(remaining)));
    try {
        std::string message;
        rx_result result = ws_rx_piece(in, len, remaining, lws_is_final_fragment(wsi) != 0, &message);
        if (result == RX_COMPLETE)
            note(SESSION_MESSAGE, std::move(message));
        return result == RX_FAILED ? -1 : 0;
    } catch (const std::bad_alloc &) { /* it must not fly through the library */
        ws_rx_reset();
        LOG(LOG_FAILURE, "Not able  to allocate memory for payload , return error");
        return -1;
    }
}

static int on_writable(void)
{
    log_file_only quiet; /* a streamed line about sending would be sent, and so on */
    LOG(LOG_TRACE, "%s: LWS_CALLBACK_CLIENT_WRITEABLE", self);
    if (ws.closing) /* data behind a close frame would break the protocol */
        return 0;
    if (ws.close_pending) {
        send_close_frame_to_orvanta("DEV_REBOOT", strlen("DEV_REBOOT"));
        ws.close_pending = 0;
        return -1;
    }
    in_writable = 1;
    ws_watch(EV_READ);
    service_txq();
    return 0;
}

int callback_websocket(lws *wsi, enum lws_callback_reasons reason, void *user, void *in, size_t len)
{
    if (reason == LWS_CALLBACK_OPENSSL_LOAD_EXTRA_CLIENT_VERIFY_CERTS) {
        on_load_certificates(user);
        return 0;
    }
    if (!wsi || wsi != ws.wsi)
        return 0;

    switch (reason) {
    case LWS_CALLBACK_CLIENT_CONNECTION_ERROR:
        log_refusal(wsi);
        lose_handle(SESSION_ERROR);
        return 0;
    case LWS_CALLBACK_CLIENT_ESTABLISHED:
        ws.established = true;
        note(SESSION_ESTABLISHED);
        return 0;
    case LWS_CALLBACK_CLIENT_CLOSED: lose_handle(SESSION_CLOSED); return 0;
    case LWS_CALLBACK_WSI_DESTROY: /* without a verdict before it */
        lose_handle(ws.established ? SESSION_CLOSED : SESSION_ERROR);
        return 0;
    case LWS_CALLBACK_CLIENT_RECEIVE: return on_receive(wsi, static_cast<const char *>(in), len);
    case LWS_CALLBACK_CLIENT_RECEIVE_PONG: note(SESSION_PONG); return 0;
    case LWS_CALLBACK_CLIENT_WRITEABLE: return on_writable();
    default: return 0;
    }
}

/* ---- the loop's side ---- */

/*
 * What a frame claims stands in its first bytes, but the library hands nothing out before 4096 bytes of it
 * have come. A claim that can never be held is refused at once: all that follows, pongs too, would count as
 * its payload.
 */
static void refuse_oversized_frame(void)
{
    if (!ws.wsi || !ws.established || ws.closing || lws_remaining_packet_payload(ws.wsi) <= RX_MESSAGE_LIMIT)
        return;
    LOG(LOG_FAILURE, "Not able  to allocate memory for payload , return error");
    ws_kill();
}

static void serve(void)
{
    ws_serve_library();
    refuse_oversized_frame();
    ws_handle_events();
    ws_keep_serving();
}

static void serve_timer_cb(void *)
{
    timer_fired(serve_timer);
    serve();
}

void ws_fd_event_cb(int32_t fd, int32_t event, void *)
{
    if (event != EV_READ && event != EV_WRITE) {
        LOG(LOG_FAILURE, "Invalid event received");
        return;
    }
    /* Connected, or refused: either way the next word is the peer's. */
    if (event == EV_WRITE && !ws.established && fd == ws.websock_fd)
        ws_watch(EV_READ);
    serve();
}

void ws_session_init(void)
{
    serve_timer.callback = serve_timer_cb;
    ws_link_init(callback_websocket, ws_fd_event_cb);
}

void ws_session_reset(void)
{
    noted.clear();
    ws_link_reset();
}
