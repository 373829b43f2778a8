#include "operations/config-restore.h"

#include <unistd.h>

#include "agent/debug-log.h"
#include "agent/state-file.h"
#include "operations/config-files.h"
#include "operations/config-reboot.h"
#include "platform/state-files.h"

#define MODULE "wifi.c"

int32_t reconfig_pending;

void platform_mark_device_reconfigured(void)
{
    if (replace_file(DEVICE_RECONFIGURED_FILE, "") != 0)
        LOG(LOG_FAILURE, "Failed to create %s", DEVICE_RECONFIGURED_FILE);
}

void platform_restore_cfg(void)
{
    LOG(LOG_FAILURE, "Rebooting device in 10 seconds, to restore good config");
    if (restore_config_backup() != COPY_FAILED)
        (void)unlink(DEVICE_RECONFIGURED_FILE);
    start_config_reboot();
}

void platform_cancel_cfg_restore(void)
{
    if (reconfig_pending != 1)
        return;
    reconfig_pending = 0;
    LOG(LOG_TRACE, "Connection alive after partial reconfig");
    (void)unlink(DEVICE_RECONFIGURED_FILE);
}
