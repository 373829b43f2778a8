#include "platform/reboot.h"

#include "agent/debug-log.h"
#include "agent/run.h"

#define MODULE "wifi.c"

#define SHUTDOWN_SCRIPT "/usr/bin/scripts/shutdown.sh"

int platform_reboot(const char *reason)
{
    LOG(LOG_NOTABLE, "** Please standby rebooting device **");
    int status = safe_system_run(SHUTDOWN_SCRIPT, reason, static_cast<char *>(nullptr));
    if (status != 0)
        LOG(LOG_FAILURE, "%s: %s ended with status %d", "platform_reboot", SHUTDOWN_SCRIPT, status);
    return status;
}
