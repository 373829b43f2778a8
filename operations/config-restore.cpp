#include "operations/config-restore.h"

#include <unistd.h>

#include "agent/debug-log.h"
#include "agent/ws-link.h"
#include "operations/config-files.h"
#include "operations/config-reboot.h"
#include "platform/state-files.h"

#define MODULE "wifi.c"

int32_t reconfig_pending;

static int32_t old_pongs; /* may still come, for pings from before the update */

void expect_proof_of_reconfig(void)
{
    reconfig_pending = 1;
    old_pongs = ws.pong_received ? 0 : ws.pong_loss + 1;
}

void platform_restore_cfg(void)
{
    LOG(LOG_FAILURE, "Rebooting device in 10 seconds, to restore good config");
    if (restore_config_backup() != COPY_FAILED)
        (void)unlink(DEVICE_RECONFIGURED_FILE);
    start_config_reboot(CONFIG_PROVEN);
}

void platform_cancel_cfg_restore(void)
{
    if (reconfig_pending != 1)
        return;
    if (old_pongs > 0) {
        old_pongs--;
        return;
    }
    reconfig_pending = 0;
    LOG(LOG_TRACE, "Connection alive after partial reconfig");
    (void)unlink(DEVICE_RECONFIGURED_FILE);
}
