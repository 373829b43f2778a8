#include "agent/ws-ping.h"

#include <cstdio>
#include <cstring>

#include "agent/da.h"
#include "agent/debug-log.h"
#include "agent/hooks.h"
#include "agent/txq.h"
#include "agent/utils.h"
#include "agent/ws-close.h"
#include "agent/ws-link.h"
#include "agent/ws-timers.h"
#include "platform/parent-mac.h"

#define MODULE "device-agent.c"

enum {
    PONGS_MISSED_LIMIT = 5,
    PMAC_FIRST_POLL = 1, /* seconds */
    PMAC_POLL = 5,
};

/* 15 to 29 s: a fleet must not ping in step. */
static int32_t ping_delay(void) { return static_cast<int32_t>(random_number(15) + 15); }

void start_pings(void)
{
    ws.pong_loss = 0;
    int32_t delay = ping_delay();
    LOG(LOG_TRACE, "send ping after %d seconds", delay);
    LOG(LOG_TRACE, "send controller data %d seconds", PMAC_FIRST_POLL);
    ping_timer.callback = ping_timer_cb;
    pmac_timer.callback = pmac_timer_cb;
    timer_arm(ping_timer, delay);
    if (!pmac_discovery_complete)
        timer_arm(pmac_timer, PMAC_FIRST_POLL);
}

int send_ping(void)
{
    char payload[128];
    snprintf(payload, sizeof(payload),
             "{\"Message\":\"ping from device agent\", \"Pid\": \"%d\", \"PongLoss\": \"%d\"}", gPid,
             ws.pong_loss);
    return write_to_orv(payload, strlen(payload), 1);
}

void service_ping(void)
{
    if (send_ping() == 0)
        LOG(LOG_TRACE, "%s: Ping enqueued", "service_ping");
    else
        LOG(LOG_FAILURE, "%s: Failed to send ping to Orvanta", "service_ping");
}

/* Returns true when the connection is given up. */
static bool count_missing_pong(void)
{
    ws.pong_loss++;
    LOG(LOG_FAILURE, "Not received PONG for the last ping (%d)", ws.pong_loss);
    if (ws.pong_loss < PONGS_MISSED_LIMIT)
        return false;
    LOG(LOG_FAILURE, "Missed 5 consecutive PONGS, disconnecting with server");
    ws.pong_loss = 0;
    send_close_frame_to_orvanta("DEV_PING_TIMEOUT", strlen("DEV_PING_TIMEOUT"));
    expect_closure();
    return true;
}

void ping_timer_cb(void *)
{
    timer_fired(ping_timer);
    int32_t delay = ping_delay();
    LOG(LOG_TRACE, "ping call back");
    if (da.state != DA_STATE_CONNECTED)
        return;
    service_ping();
    if (ws.pong_received == 1) {
        ws.pong_received = 0;
        ws.pong_loss = 0;
    } else if (count_missing_pong()) {
        return;
    }
    LOG(LOG_TRACE, "send new ping after %d seconds", delay);
    timer_arm(ping_timer, delay);
}

void pong_received(void)
{
    LOG(LOG_TRACE, "%s: Received Pong message from Orvanta", "callback_websocket");
    ws.pong_received = 1;
    call_hook(hooks.platform_cancel_cfg_restore);
}

void pmac_timer_cb(void *)
{
    timer_fired(pmac_timer);
    if (pmac_discovery_complete)
        return;
    platform_find_parent_mac();
    timer_arm(pmac_timer, PMAC_POLL);
}
