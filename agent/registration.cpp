#include "agent/registration.h"

#include <cstring>

#include "agent/da.h"
#include "agent/debug-log.h"
#include "agent/named-timer.h"
#include "agent/ws-close.h"
#include "protocol/register.h"

#define MODULE "device-agent.c"

/* Seconds. */
enum {
    REGISTER_POLL = 2,
    REGISTER_RESPONSE_WAIT = 60,
    REGISTER_DELAY = 2,
    REGISTER_RETRY = 10,
};

static int32_t register_attempts; /* unanswered REGISTERs of this connection */

static void poll_cb(void *name);
static void register_response_timeout_cb(void *name);
static void delay_cb(void *name);
static void failed_cb(void *name);

static named_timer register_timer = {"REGISTER", poll_cb, nullptr};
static named_timer register_wait_timer = {"REGISTER RESPONSE WAIT", register_response_timeout_cb, nullptr};
static named_timer register_delay_timer = {"REGISTER DELAY", delay_cb, nullptr};
static named_timer register_failed_timer = {"REGISTER FAILED", failed_cb, nullptr};

static void poll_cb(void *)
{
    timer_fired(register_timer);
    da_register();
}

static void delay_cb(void *)
{
    timer_fired(register_delay_timer);
    da_register();
}

static void failed_cb(void *)
{
    timer_fired(register_failed_timer);
    da_register();
}

static void register_response_timeout_cb(void *)
{
    timer_fired(register_wait_timer);
    da.register_sent = 0;
    timer_arm(register_delay_timer, REGISTER_DELAY);
}

/* Returns true when there is nothing more to do: it is sent, or the connection is given up. */
static bool send_register(void)
{
    LOG(LOG_EVENT, "%s: Sending REGISTER request", "da_register");
    register_attempts++;
    if (register_attempts >= 2) {
        LOG(LOG_FAILURE, "No REGISTER response received, closing websocket");
        send_close_frame_to_orvanta("DEV_REG_TIMEOUT", strlen("DEV_REG_TIMEOUT"));
        expect_closure();
        return true;
    }
    if (build_and_send_register() != 0) {
        LOG(LOG_FAILURE, "Not able to send Register Message");
        return false;
    }
    da.register_sent = 1;
    timer_arm(register_wait_timer, REGISTER_RESPONSE_WAIT);
    return true;
}

void da_register(void)
{
    if (!da.register_sent && pmac_discovery_complete && send_register())
        return;
    if (da.register_sent || da.state != DA_STATE_CONNECTED)
        return;
    timer_arm(register_timer, REGISTER_POLL);
}

void begin_registration(void)
{
    register_attempts = 0;
    da_register();
}

void registration_answered(void)
{
    register_attempts = 0;
    timer_disarm(register_wait_timer);
    timer_disarm(register_delay_timer); /* an answer at the last moment is an answer */
}

void retry_registration(void)
{
    da.register_sent = 0;
    timer_arm(register_failed_timer, REGISTER_RETRY);
}

void cancel_registration(void)
{
    timer_disarm(register_timer);
    timer_disarm(register_wait_timer);
    timer_disarm(register_delay_timer);
    timer_disarm(register_failed_timer);
}
