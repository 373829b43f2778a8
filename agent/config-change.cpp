#include "agent/config-change.h"

#include <cstdio>
#include <cstring>

#include "agent/da.h"
#include "agent/debug-log.h"
#include "agent/enter-state.h"
#include "agent/named-timer.h"
#include "agent/state-idle.h"
#include "agent/ws-close.h"
#include "agent/ws-link.h"
#include "platform/connection-status.h"

#define MODULE "device-agent.c"

enum {
    CLOSE_RETRY_WAIT = 5,  /* seconds */
    FALL_BACK_AT_ONCE = 3, /* so many waits for reconnect were used up */
};

/* What the retry says when its time comes. */
struct close_retry_record {
    char text[126];
    size_t length;
};

static close_retry_record rcb_data;

static void close_retry_cb(void *name);
static named_timer close_retry_timer = {"CLOSE RETRY", close_retry_cb, nullptr};

static void close_retry_cb(void *)
{
    timer_fired(close_retry_timer);
    LOG(LOG_EVENT, "Waiting for ongoing websocket connection to complete");
    if (da.state != DA_STATE_IDLE && da.state != DA_STATE_CONNECTED) {
        ws.reconnect_attempts = FALL_BACK_AT_ONCE;
        timer_arm(close_retry_timer, CLOSE_RETRY_WAIT);
        return;
    }
    close_for_config_change(rcb_data.text, rcb_data.length);
}

/* The next pass comes soon and asks every source. */
static void begin_anew(const char *reason)
{
    LOG(LOG_EVENT, "Received Close config change [ %s] ", reason);
    idle_timeout = 5;
    da.discovery_method = DISCOVER_STATIC_URL;
}

void close_for_config_change(const char *reason, size_t len)
{
    begin_anew(reason);
    if (da.state == DA_STATE_CONNECTED) {
        if (send_close_frame_to_orvanta(reason, len) == 0)
            expect_closure();
        return;
    }
    if (da.state == DA_STATE_IDLE && discovery_timer.handle) {
        timer_disarm(discovery_timer);
        da_enter_state(DA_STATE_IDLE);
        return;
    }
    LOG(LOG_TRACE, "start close connect_cb");
    char text[sizeof(rcb_data.text)]; /* the reason may be the record's own text */
    snprintf(text, sizeof(text), "%s", reason);
    memcpy(rcb_data.text, text, sizeof(text));
    rcb_data.length = strlen(rcb_data.text);
    timer_arm(close_retry_timer, CLOSE_RETRY_WAIT);
    platform_set_orv_connection_state(ORV_ACCESS_DENIED,
                                      "Another connection is in progress , please wait for reconnect");
}

void leave_for_new_address(const char *reason, size_t len)
{
    if (da.state != DA_STATE_CONNECTING) {
        close_for_config_change(reason, len);
        return;
    }
    /* Waiting for an attempt that leads to the wrong place may take two minutes. */
    begin_anew(reason);
    da_enter_state(DA_STATE_DISCONNECTED);
}

void config_change_reset(void) { timer_disarm(close_retry_timer); }
