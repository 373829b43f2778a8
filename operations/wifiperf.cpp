#include "operations/wifiperf.h"

#include "agent/debug-log.h"
#include "agent/named-timer.h"
#include "agent/owners.h"
#include "device/scm.h"

#define MODULE "exec-cmd.c"

int32_t wifiperf_running;

static named_timer wifiperf_timer = {"COMMAND COMPLETE", wifiperf_timeout_cb, nullptr};

/* Sets the item and applies it; `what` is "start" or "stop". */
static int switch_end_point(const char *value, const char *what)
{
    if (scm_process_config_set_item("zapd_start_stop", value) < 0) {
        LOG(LOG_FAILURE, "Error setting wifiperf %s", what);
        return -1;
    }
    malloc_text message(scm_build_msg_no_payload("CONFIG-APPLY"));
    malloc_text reply(message ? scm_send_and_recv(message.get()) : nullptr);
    if (!reply) {
        LOG(LOG_FAILURE, "Error applying wifiperf %s", what);
        return -1;
    }
    return 0;
}

int start_wifiperf(void)
{
    if (!wifiperf_running) {
        if (switch_end_point("true", "start") != 0)
            return -1;
        LOG(LOG_EVENT, "starting wifiperf speed test Daemon");
        wifiperf_running = 1;
    }
    if (wifiperf_timer.handle)
        LOG(LOG_EVENT, "refreshing the  wifiperf speed test Daemon timer");
    timer_arm(wifiperf_timer, WIFIPERF_SECONDS);
    if (wifiperf_timer.handle)
        LOG(LOG_EVENT, "wifiperf Daemon timer started");
    else
        LOG(LOG_FAILURE, "wifiperf  timer could not started");
    return 0;
}

int stop_wifiperf(void)
{
    if (wifiperf_running) {
        if (switch_end_point("false", "stop") != 0)
            return -1;
        wifiperf_running = 0;
    }
    LOG(LOG_EVENT, "Stopping wifiperf end point");
    return 0;
}

void stop_running_wifiperf(void)
{
    if (wifiperf_running)
        (void)stop_wifiperf();
}

void wifiperf_timeout_cb(void *)
{
    timer_fired(wifiperf_timer);
    LOG(LOG_EVENT, "wifiperf Endpoint Timeout");
    if (stop_wifiperf() == -1)
        LOG(LOG_FAILURE, "Error in terminating wifiperf");
}

void wifiperf_reset(void)
{
    timer_disarm(wifiperf_timer);
    wifiperf_running = 0;
}
