#include "agent/state-connecting.h"

#include <cstdlib>

#include "agent/da.h"
#include "agent/debug-log.h"
#include "agent/enter-state.h"
#include "agent/fatal.h"
#include "agent/hooks.h"
#include "agent/utils.h"
#include "agent/ws-link.h"
#include "agent/ws-session.h"

#define MODULE "device-agent.c"

enum {
    CONNECT_TIMEOUT = 60, /* seconds */
    MAX_CONNECT_ATTEMPTS = 10,
    MAX_RECONNECT_ATTEMPTS = 3,
    RECONNECT_WAIT = 60,   /* seconds, and up to */
    RECONNECT_SPREAD = 20, /* as many on top */
    FALLBACK_WAIT = 300,   /* seconds before the controller is looked for again */
};

static void reconnect_timer_cb(void *name);
static named_timer reconnect_timer = {"WAIT FOR RECONNECT", reconnect_timer_cb, nullptr};

/* Whatever failed, one wait is enough. */
static void schedule_reconnect(void)
{
    if (ws.reconnect_scheduled)
        return;
    ws.reconnect_scheduled = 1;
    wait_for_reconnect();
}

static void lws_connect_timeout_cb(void *)
{
    timer_fired(connect_timer);
    if (da.state != DA_STATE_CONNECTING)
        return;
    ws.connect_attempts++;
    if (ws.connect_attempts > MAX_CONNECT_ATTEMPTS) {
        LOG(LOG_FAILURE, "%s: Exhausted max websocket connect attempts(%d), restarting DA",
            "lws_connect_timeout_cb", MAX_CONNECT_ATTEMPTS);
        call_hook(hooks.stop_fw_dl_process); /* what it leaves would block upgrades under the next agent */
        exit(1);
    }
    LOG(LOG_FAILURE, "%s: Unable to connect websocket to Orvanta, trying again", "lws_connect_timeout_cb");
    LOG(LOG_TRACE, "%s: context=%p", "lws_connect_timeout_cb", static_cast<void *>(ws.context));
    ws_drop();
    schedule_reconnect();
}

void enter_connecting(void)
{
    LOG(LOG_EVENT, "%s:DA_STATE_CONNECTING", "da_enter_state");
    LOG(LOG_TRACE, "call libwebsocket_create_context");
    int created = ws_create_context();
    if (created != 0) {
        LOG(LOG_FAILURE, "Creating libwebsocket context failed");
        call_hook(hooks.stop_fw_dl_process); /* it would block upgrades, see above */
    }
    fatal_assert(created == 0);

    if (ws_connect() == 0) {
        LOG(LOG_EVENT, "Device-Agent Waiting for connect... to Orvanta:[%s] ctimer=%p", ws_target.host,
            static_cast<void *>(connect_timer.handle));
        if (connect_timer.handle)
            LOG(LOG_FAILURE, "Reconnect timer (ctimer %p name [%s]) already running, cleaning",
                static_cast<void *>(connect_timer.handle), connect_timer.name);
        connect_timer.callback = lws_connect_timeout_cb;
        timer_arm(connect_timer, CONNECT_TIMEOUT);
    } else {
        ws_handle_events(); /* the library's reason, noted inside the call */
        LOG(LOG_FAILURE, "Not able to establish connection with Orvanta");
        schedule_reconnect();
    }
}

void wait_for_reconnect(void)
{
    LOG(LOG_TRACE, "%s: ENTRY", "wait_for_reconnect");
    if (ws.reconnect_attempts < MAX_RECONNECT_ATTEMPTS) {
        int32_t wait = RECONNECT_WAIT + static_cast<int32_t>(random_number(RECONNECT_SPREAD));
        LOG(LOG_TRACE, "max_reconnect_attempts  %d,  reconnect_timeout %d", ws.reconnect_attempts, wait);
        ws.reconnect_attempts++;
        timer_arm(reconnect_timer, wait);
        return;
    }
    ws.reconnect_attempts = 0;
    idle_timeout = FALLBACK_WAIT;
    da_enter_state(DA_STATE_IDLE);
    LOG(LOG_EVENT, "Wait for %d seconds before falling back to discovery", FALLBACK_WAIT);
}

static void reconnect_timer_cb(void *)
{
    timer_fired(reconnect_timer);
    if (da.state == DA_STATE_CONNECTED)
        return;
    ws.reconnect_scheduled = 0;
    da_enter_state(DA_STATE_CONNECTING);
}

void cancel_reconnect_timer(void) { timer_disarm(reconnect_timer); }
