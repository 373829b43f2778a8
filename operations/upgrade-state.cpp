#include "operations/upgrade-state.h"

#include <unistd.h>

#include "agent/debug-log.h"
#include "agent/state-file.h"
#include "platform/event-trap.h"

#define MODULE "wifi.c"

int32_t upgrade_in_progress;
int32_t upgrade_flashing;

int32_t platform_get_upgrade_status(void)
{
    LOG(LOG_TRACE, "%s: An upgrade_in_progress %d https_download_status %d", "platform_get_upgrade_status",
        upgrade_in_progress, https_download_status);
    if (!upgrade_in_progress || https_download_status < DOWNLOAD_RUNNING ||
        https_download_status > DOWNLOAD_FAILED)
        return DOWNLOAD_NONE;
    return https_download_status;
}

void platform_write_upgrade_progress(const char *text) { (void)replace_file(UPGRADE_PROGRESS_FILE, text); }

void end_upgrade(void)
{
    upgrade_in_progress = 0;
    (void)unlink(UPGRADE_PROGRESS_FILE);
}
