#include "agent/start.h"

#include <cstdio>
#include <string>

#include <libwebsockets.h>
#include <unistd.h>

#include "agent/da.h"
#include "agent/debug-log.h"
#include "agent/enter-state.h"
#include "agent/ev.h"
#include "agent/hooks.h"
#include "agent/lws-log.h"
#include "agent/named-timer.h"
#include "agent/signals.h"
#include "agent/state-file.h"
#include "agent/text.h"
#include "agent/utils.h"
#include "agent/wiring.h"
#include "discovery/https-client.h"
#include "platform/address-watch.h"
#include "platform/connection-status.h"
#include "platform/heartbeat.h"
#include "platform/identity.h"

#define MODULE "device-agent.c"

/* Seconds. */
enum {
    HEARTBEAT_PERIOD = 60,
    AGGRESSIVE_PERIOD = 900,
};

static void da_alive_cb(void *name);
static void aggr_mode_timeout_cb(void *name);

static named_timer da_alive_timer = {"DA ALIVE", da_alive_cb, nullptr};
static named_timer aggressive_timer = {"AGGRESSIVE MODE", aggr_mode_timeout_cb, nullptr};

static void da_alive_cb(void *)
{
    timer_fired(da_alive_timer);
    LOG(LOG_TRACE, "%s: Kicking the DA watchdog", "da_alive_cb");
    platform_update_heartbeat();
    platform_look_at_controller_address();
    timer_arm(da_alive_timer, HEARTBEAT_PERIOD);
}

static void aggr_mode_timeout_cb(void *)
{
    timer_fired(aggressive_timer);
    LOG(LOG_EVENT, "%s: Aggressive mode ended", "aggr_mode_timeout_cb");
    aggressive_mode = 0;
}

int init_device_agent(int debug_level)
{
    da_reset();
    da.debug_level = debug_level;
    https_client_init();
    LOG(LOG_EVENT, "Device-agent version [%s]", DA_VERSION);
    (void)replace_file(DA_VERSION_FILE, DA_VERSION);
    gPid = getpid();
    if (platform_init_dev_info() < 0) {
        LOG(LOG_FAILURE, "%s: Failed to initialize dev_info", "init_device_agent");
        return -1;
    }
    platform_set_orv_connection_state(ORV_NOT_CONNECTED, nullptr);
    aggressive_mode = 1;
    timer_arm(aggressive_timer, AGGRESSIVE_PERIOD);
    return 0;
}

/* How often the agent started since the device booted. */
static void count_restart(void)
{
    enum { COUNT_LENGTH = 15 };
    char text[COUNT_LENGTH + 1];
    read_value_file(RESTARTS_FILE, text, COUNT_LENGTH);
    int32_t restarts = text_to_int(text);
    LOG(LOG_EVENT, "Device-agent started (%d)", restarts);
    (void)replace_file(RESTARTS_FILE, std::to_string(int64_t{restarts} + 1));
}

int start_device_agent(int debug_level)
{
    install_hooks();
    platform_init_signal_handler();
    platform_set_orv_connection_state(ORV_NOT_CONNECTED, "Not Connected");
    da.debug_level = debug_level;
    LOG(LOG_EVENT, "Initializing Velmora Device Agent da.debug_level=%d", da.debug_level);
    if (init_device_agent(debug_level) != 0) {
        LOG(LOG_FAILURE, "Failed to initialize device agent ");
        return -1;
    }
    LOG(LOG_TRACE, "%s: Device mode [%s]", "start_device_agent", da.dev_info.device_mode);
    LOG(LOG_EVENT, "Initializing da.state to [%d]", da.state);
    count_restart();
    lws_set_log_level(LWS_LOG_MASK, lws_log_hook);
    (void)call_hook(hooks.log_server_init); /* it runs without them as well */
    (void)call_hook(hooks.platform_event_listener);
    da_enter_state(DA_STATE_IDLE);
    call_hook(hooks.device_agent_msg_from_wifid_callback_init);
    platform_create_heartbeat();
    timer_arm(da_alive_timer, HEARTBEAT_PERIOD);
    platform_watch_controller_address();
    for (;;)
        ev_main();
}
