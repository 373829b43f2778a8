#include "agent/state-idle.h"

#include <unistd.h>

#include "agent/cfg-restore-timer.h"
#include "agent/da.h"
#include "agent/debug-log.h"
#include "agent/enter-state.h"
#include "agent/ws-link.h"
#include "platform/connection-status.h"
#include "platform/state-files.h"

#define MODULE "device-agent.c"

static void discovery_delay_cb(void *)
{
    timer_fired(discovery_timer);
    if (da.state != DA_STATE_IDLE)
        return;
    ws.reconnect_scheduled = 0;
    da_enter_state(DA_STATE_DISCOVERY);
}

named_timer discovery_timer = {"DISCOVERY DELAY", discovery_delay_cb, nullptr};

/* A descriptor left from an attempt that was given up. */
static void clean_stale_descriptor(void)
{
    if (ws.websock_fd == -1)
        return;
    LOG(LOG_FAILURE, "Cleaning stale websock_fd %d", ws.websock_fd);
    if (ws.wsi) {
        ws_drop(); /* the library holds the descriptor: it alone closes it */
        return;
    }
    ev_del_fd(ws.websock_fd);
    close(ws.websock_fd);
    ws.websock_fd = -1;
}

static void log_next_attempt(void)
{
    LOG(LOG_TRACE, "started discover timer, idle_timeout = %d", idle_timeout);
    if (idle_timeout < 120)
        LOG(LOG_FAILURE, "Attempting (re)connection in %d seconds", idle_timeout);
    else
        LOG(LOG_FAILURE, "Attempting (re)connection in %d minutes", idle_timeout / 60);
}

void enter_idle(void)
{
    if (stay_idle)
        return;
    clean_stale_descriptor();
    LOG(LOG_EVENT, "%s:DA_STATE_IDLE", "da_enter_state");
    if (platform_device_reconfigured() == 0)
        start_cfg_restore_timer();
    if (idle_timeout < 1)
        idle_timeout = 1;
    log_next_attempt();
    timer_arm(discovery_timer, idle_timeout);
    if (!orv_state_action_pending) {
        retry_time = idle_timeout < 61 ? 0 : idle_timeout;
        platform_set_orv_connection_state(ORV_CONNECTING, nullptr);
    }
}
