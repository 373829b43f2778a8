#include "agent/ws-link.h"

#include <cstring>

#include "agent/debug-log.h"

#define MODULE "device-agent.c"

websocket_target ws_target;
websocket_session ws = {};

static lws_callback_function *library_callback;
static ev_fd_callback fd_callback;
static lws_protocols protocols[2]; /* the second one, all zero, ends the table */

/*
 * The library's own verdicts, in seconds: all beyond the agent's timers ("LWS CONNECTING" 60 s, the pong rule
 * 145 s, "WS DESTROY" 30 s), so that the agent decides.
 */
enum { LIBRARY_TIMEOUT = 180 };

static lws_retry_bo_t idle_policy() /* validity pings of the library: practically never */
{
    lws_retry_bo_t policy = {};
    policy.secs_since_valid_ping = 65000;
    policy.secs_since_valid_hangup = 65100;
    return policy;
}
static const lws_retry_bo_t no_validity_pings = idle_policy();

/* How often the library is served again for bytes that TLS has decrypted, in one pass of the loop. */
enum { DRAIN_ROUNDS = 16 };

/* The library asks for room for its own wake-up pipe too; a small table saves 320 KiB. */
enum { LIBRARY_DESCRIPTORS = 8 };

static void reset_session(void)
{
    ws = {};
    ws.websock_fd = -1;
    ws.pong_received = 1;
}

void ws_link_init(lws_callback_function *library, ev_fd_callback loop)
{
    library_callback = library;
    fd_callback = loop;
    reset_session();
}

void ws_link_reset(void)
{
    timer_disarm(connect_timer);
    timer_disarm(serve_timer);
    reset_session();
    memset(&ws_target, 0, sizeof(ws_target));
}

int ws_create_context(void)
{
    if (ws.context)
        return 0;
    protocols[0].name = "websock_protocol";
    protocols[0].callback = library_callback;
    protocols[0].per_session_data_size = 4;
    protocols[0].rx_buffer_size = 4096;

    lws_context_creation_info info = {};
    info.port = CONTEXT_PORT_NO_LISTEN;
    info.protocols = protocols;
    info.gid = static_cast<gid_t>(-1);
    info.uid = static_cast<uid_t>(-1);
    /* The system's CA store is used, but by hash lookup instead of loading the whole bundle (see
     * ws-session.cpp). */
    info.options = LWS_SERVER_OPTION_DO_SSL_GLOBAL_INIT | LWS_SERVER_OPTION_DISABLE_OS_CA_CERTS;
    info.timeout_secs = LIBRARY_TIMEOUT;
    info.connect_timeout_secs = LIBRARY_TIMEOUT;
    info.retry_and_idle_policy = &no_validity_pings;
    info.fd_limit_per_thread = LIBRARY_DESCRIPTORS;

    ws.in_library = true;
    ws.context = lws_create_context(&info);
    ws.in_library = false;
    return ws.context ? 0 : -1;
}

/* Keeps the loop's registration in step with the descriptor that the library uses now. */
static void follow_descriptor(void)
{
    int32_t fd = ws.wsi ? static_cast<int32_t>(lws_get_socket_fd(ws.wsi)) : -1;
    /*
     * A host's next address may get the number of the one before: that it is to be watched for writing again
     * goes unseen, and "LWS SERVICE" finds within seconds that it has connected.
     */
    if (fd == ws.websock_fd)
        return;
    if (ws.websock_fd != -1) {
        ev_del_fd(ws.websock_fd);
        LOG(LOG_TRACE, "Delete FD from pollfd %d", ws.websock_fd);
    }
    ws.websock_fd = fd;
    if (fd == -1)
        return;
    /*
     * A connecting socket is watched for writing until it was writable once. A connected one is nearly always
     * writable: watching on while a silent server owes us its part of the handshake would spin the loop.
     */
    uint32_t events = ws.established ? EV_READ : EV_WRITE;
    LOG(LOG_TRACE, "Add FD to the pollfd %d events %d", fd, static_cast<int>(events));
    ev_del_fd(fd);
    ev_add_fd(fd, events, fd_callback, ws.context);
}

int ws_connect(void)
{
    if (ws.wsi)
        ws_drop();
    ws.connection++;
    ws.established = false;
    ws.closing = false;

    lws_client_connect_info info = {};
    info.context = ws.context;
    info.address = ws_target.host;
    info.host = ws_target.host;
    info.origin = ws_target.host;
    info.port = ws_target.port;
    info.path = ws_target.path;
    info.protocol = "websock_protocol";
    info.ietf_version_or_minus_one = -1;
    info.alpn = "http/1.1";
    /* Host names are checked by our own verification, which every connection goes through. */
    info.ssl_connection =
        LCCSCF_USE_SSL | LCCSCF_SKIP_SERVER_CERT_HOSTNAME_CHECK | LCCSCF_HTTP_NO_FOLLOW_REDIRECT;
    info.retry_and_idle_policy = &no_validity_pings;
    /* An attempt may fail before the call returns: the error callback knows its handle by this. */
    info.pwsi = &ws.wsi;

    ws.in_library = true;
    lws *made = lws_client_connect_via_info(&info);
    ws.in_library = false;
    if (!made)
        ws.wsi = nullptr;
    follow_descriptor();
    ws_keep_serving();
    return ws.wsi ? 0 : -1;
}

void ws_keep_serving(void)
{
    if (ws.wsi && (!ws.established || ws.closing) && !serve_timer.handle)
        timer_arm(serve_timer, 1);
}

/* Forgets the handle and its descriptor; the library still has both. */
static lws *forget_connection(void)
{
    lws *dropped = ws.wsi;
    ws.wsi = nullptr;
    ws.connection++;
    ws.established = false;
    ws.closing = false;
    follow_descriptor();
    return dropped;
}

void ws_drop(void)
{
    lws *dropped = forget_connection();
    if (!dropped || ws.in_library)
        return;
    ws.in_library = true;
    lws_set_timeout(dropped, PENDING_TIMEOUT_CLOSE_SEND, LWS_TO_KILL_SYNC);
    ws.in_library = false;
}

void ws_kill(void)
{
    ws.in_library = true;
    lws_set_timeout(ws.wsi, PENDING_TIMEOUT_CLOSE_SEND, LWS_TO_KILL_SYNC);
    lws_service(ws.context, -1);
    ws.in_library = false;
    /* A peer that is gone ends it here: the loop must not go on watching a descriptor that is closed. */
    follow_descriptor();
}

void ws_destroy_context(void)
{
    (void)forget_connection();
    if (!ws.context)
        return;
    ws.in_library = true;
    lws_context_destroy(ws.context);
    ws.in_library = false;
    ws.context = nullptr;
}

void ws_watch(uint32_t events)
{
    if (ws.websock_fd < 0)
        return;
    ev_del_fd(ws.websock_fd);
    ev_add_fd(ws.websock_fd, events, fd_callback, ws.context);
}

void ws_request_writable(void)
{
    /* Without a callback to come, a descriptor that is nearly always writable would spin the loop. */
    if (!ws.wsi || !ws.established || ws.closing)
        return;
    ws_watch(EV_READ | EV_WRITE);
    lws_callback_on_writable(ws.wsi);
}

void ws_serve_library(void)
{
    if (!ws.context)
        return;
    ws.in_library = true;
    /* The second call sends the pongs and leftovers for which the library wants a writable socket. */
    lws_service(ws.context, -1);
    lws_service(ws.context, -1);
    /* Bounded: a peer that sends without end must not keep the loop here. */
    for (int i = 0; i < DRAIN_ROUNDS && lws_service_adjust_timeout(ws.context, 1, 0) == 0; i++)
        lws_service(ws.context, -1);
    ws.in_library = false;
    follow_descriptor();
}
