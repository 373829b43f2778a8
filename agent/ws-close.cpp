#include "agent/ws-close.h"

#include <cstring>
#include <string>

#include "agent/da.h"
#include "agent/debug-log.h"
#include "agent/enter-state.h"
#include "agent/reasons.h"
#include "agent/txq.h"
#include "agent/ws-link.h"
#include "agent/ws-rx.h"
#include "agent/ws-timers.h"

#define MODULE "device-agent.c"

enum {
    CLOSE_NORMAL = 1000,      /* RFC 6455 7.4.1 */
    CLOSE_REASON_LIMIT = 123, /* a control frame's 125 bytes less the status */
    CLOSURE_WAIT = 30,        /* seconds until the context is destroyed */
    DISCONNECT_WAIT = 5,      /* seconds after that */
    SLOW_RECONNECT = 60,      /* seconds, least idle time-out after a close of ours */
};

static named_timer ws_destroy_timer = {"WS DESTROY", ws_destroy_cb, nullptr};
static named_timer disconnect_timer = {"DA DISCONNECT", da_disconnect, nullptr};

/* Hands the frame to the library; returns the bytes of its payload, or -1. */
static int write_close_frame(const char *reason, size_t len)
{
    /* The library asserts that a close comes after established and once. */
    if (!ws.established || ws.closing)
        return -1;
    if (len > CLOSE_REASON_LIMIT)
        len = CLOSE_REASON_LIMIT;
    std::string text(reason, len);
    lws_close_reason(ws.wsi, static_cast<enum lws_close_status>(CLOSE_NORMAL),
                     reinterpret_cast<unsigned char *>(text.data()), len);
    ws.closing = true;
    ws_watch(EV_READ);
    if (!ws.in_library) { /* inside a callback returning -1 does the rest */
        ws_kill();
        timer_arm(serve_timer, 1); /* what the library reported meanwhile is acted upon there */
    }
    return static_cast<int>(len) + 2;
}

int send_close_frame_to_orvanta(const char *reason, size_t len)
{
    int result = -1;
    if (!ws.wsi) {
        LOG(LOG_EVENT, "%s: wsi is NULL, cannot send close frame", "send_close_frame_to_orvanta");
    } else {
        int written = write_close_frame(reason, len);
        if (written < 0) {
            LOG(LOG_FAILURE, "%s: Failed to send CLOSE frame: Write failed %d", "send_close_frame_to_orvanta",
                written);
            if (!ws.established)
                ws_drop();
        } else {
            LOG(LOG_EVENT, "%s: Sent CLOSE frame n=%d", "send_close_frame_to_orvanta", written);
            result = 0;
        }
    }
    if (da.state == DA_STATE_CONNECTED) {
        LOG(LOG_TRACE, "%s: da.state=%d, writing close reason", "send_close_frame_to_orvanta", da.state);
        save_reason(LAST_CLOSE_REASON_FILE, std::string(reason, len).c_str());
    }
    in_writable = 0;
    return result;
}

void expect_closure(void)
{
    ws.destroy_pending = 1;
    timer_arm(ws_destroy_timer, CLOSURE_WAIT);
}

void close_websocket(void)
{
    if (da.state != DA_STATE_CONNECTED)
        return;
    if (idle_timeout < SLOW_RECONNECT) {
        LOG(LOG_EVENT, "%s: Slowing down reconnect", "close_websocket");
        idle_timeout = SLOW_RECONNECT;
    }
    ws.close_pending = 1;
    ws_request_writable();
}

void destroy_lws_context(void)
{
    cancel_ping_timer();
    ws_destroy_context();
}

void ws_destroy_cb(void *)
{
    timer_fired(ws_destroy_timer);
    if (!ws.destroy_pending)
        return;
    LOG(LOG_EVENT, "Websocket not closed destroying");
    timer_arm(disconnect_timer, DISCONNECT_WAIT);
    destroy_lws_context();
}

void da_disconnect(void *)
{
    timer_fired(disconnect_timer);
    if (!ws.destroy_pending)
        return;
    LOG(LOG_NOTABLE, "%s: LWS did not notify websocket closure, cleaning up", "da_disconnect");
    purge_txq();
    ws.destroy_pending = 0;
    da_enter_state(DA_STATE_DISCONNECTED);
}

void ws_forget_leftovers(void)
{
    ws_drop();
    if (txq_depth > 0)
        purge_txq();
    ws_rx_reset();
    in_writable = 0;
    ws.close_pending = 0;
    ws.destroy_pending = 0;
    ws.reconnect_scheduled = 0;
    cancel_ping_timer();
    timer_disarm(pmac_timer);
    timer_disarm(connect_timer);
    timer_disarm(ws_destroy_timer);
    timer_disarm(disconnect_timer);
}
