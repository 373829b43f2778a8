#include "agent/cfg-restore-timer.h"

#include "agent/da.h"
#include "agent/debug-log.h"
#include "agent/hooks.h"
#include "agent/named-timer.h"
#include "platform/state-files.h"

#define MODULE "device-agent.c"

enum { CFG_RESTORE_DELAY = 600 }; /* seconds */

static void cfg_restore_timer_cb(void *name);
static named_timer cfg_restore_timer = {"CONFIG RESTORE", cfg_restore_timer_cb, nullptr};

static void cfg_restore_timer_cb(void *)
{
    timer_fired(cfg_restore_timer);
    LOG(LOG_FAILURE, "%s: Reverting to last known good configuration", "cfg_restore_timer_cb");
    call_hook(hooks.platform_restore_cfg);
    /* A signal during the copy may have let the idle state arm it once more. */
    if (platform_device_reconfigured() != 0)
        timer_disarm(cfg_restore_timer);
}

void start_cfg_restore_timer(void)
{
    LOG(LOG_EVENT, "cfg_restore_timer %s running", cfg_restore_timer.handle ? "" : "not");
    if (cfg_restore_timer.handle)
        return;
    LOG(LOG_NOTABLE, "Starting cfg_restore_timer");
    timer_arm(cfg_restore_timer, CFG_RESTORE_DELAY);
}

void stop_cfg_restore_timer(void)
{
    if (!cfg_restore_timer.handle)
        return;
    LOG(LOG_EVENT, "Got connected 'back' after CFG_UPDATE, deleting the cfg_restore_timer");
    timer_disarm(cfg_restore_timer);
}
