#include "operations/config-reboot.h"

#include "agent/debug-log.h"
#include "agent/reboot-sequence.h"
#include "platform/reboot.h"
#include "platform/state-files.h"

#define MODULE "wifi.c"

/* Seconds. */
enum {
    REBOOT_DELAY = 10, /* the controller gets the last status */
    REBOOT_RETRY = 60,
};

static reboot_sequence sequence = {{"REBOOT DELAY", config_reboot_timer_cb, nullptr},
                                   {"CLOSE FRAME DELAY", config_reboot_timer_cb, nullptr},
                                   0};
static stored_config stored;

void start_config_reboot(stored_config config)
{
    stored = config;
    reboot_begin(&sequence, REBOOT_DELAY);
}

bool config_reboot_pending(void) { return reboot_is_pending(sequence); }

void config_reboot_timer_cb(void *)
{
    if (!reboot_is_due(&sequence))
        return;
    if (stored == CONFIG_UNPROVEN)
        platform_mark_device_reconfigured();
    if (platform_reboot("SRV_CFG_UPD") == 0)
        return;
    LOG(LOG_FAILURE, "%s: The device does not reboot, trying again in %d seconds", "config_reboot_timer_cb",
        REBOOT_RETRY);
    reboot_again(&sequence, REBOOT_RETRY);
}

void config_reboot_reset(void) { reboot_stop(&sequence); }
