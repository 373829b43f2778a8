#include "operations/firmware-flash.h"

#include <cstdio>
#include <cstring>

#include <sys/wait.h>

#include "agent/da.h"
#include "agent/debug-log.h"
#include "agent/reboot-sequence.h"
#include "agent/run.h"
#include "agent/txq.h"
#include "agent/ws-close.h"
#include "operations/upgrade-results.h"
#include "operations/upgrade-state.h"
#include "platform/reboot.h"
#include "protocol/message.h"
#include "protocol/replies.h"

#define MODULE "wifi.c"

/* Seconds. */
enum {
    REBOOT_DELAY = 10,
    RECONNECT_AFTER_REBOOT = 300, /* an attempt in between waits until the device is surely down */
};

static void say_goodbye(void)
{
    idle_timeout = RECONNECT_AFTER_REBOOT; /* a connection made since then has shortened it */
    (void)send_close_frame_to_orvanta("DEV_SW_REBOOT", strlen("DEV_SW_REBOOT"));
}

static reboot_sequence sequence = {{"REBOOT DELAY", sw_reboot_timer_cb, nullptr},
                                   {"CLOSE FRAME DELAY", sw_reboot_timer_cb, nullptr},
                                   0,
                                   say_goodbye};

/* As a shell tells it: a script that a signal has ended has not succeeded. -1 when it could not be run. */
static int exit_status_of(int wait_status)
{
    if (wait_status == -1)
        return -1;
    return WIFEXITED(wait_status) ? WEXITSTATUS(wait_status) : 128 + WTERMSIG(wait_status);
}

static int run_upgrade_script(void)
{
    char command[256];
    LOG(LOG_TRACE, "%s: %s", "platform_do_upgrade", FIRMWARE_FILE);
    snprintf(command, sizeof(command), "/usr/bin/scripts/upgrade.sh %s", FIRMWARE_FILE);
    LOG(LOG_EVENT, "Fire upgrade script: [%s]", command);
    flush_txq(); /* the stage is told before the loop stands still */
    upgrade_flashing = 1;
    int status = exit_status_of(run_shell(command));
    upgrade_flashing = 0;
    return status;
}

static void tell_failure(int exit_status)
{
    LOG(LOG_FAILURE, "Sw Update Failed exit_status=%d", exit_status);
    end_upgrade();
    const upgrade_result &result = find_upgrade_result(exit_status);
    (void)build_and_send_sw_update_state(MSG_SW_UPGRADE_FAILURE, result.state, result.message);
}

int platform_do_upgrade(void)
{
    int exit_status = run_upgrade_script();
    if (exit_status != 0) {
        tell_failure(exit_status);
        return 0;
    }
    LOG(LOG_EVENT, "Firmware flashing successful");
    end_upgrade();
    (void)build_and_send_sw_update_state(MSG_SW_UPGRADE_RSP, "UpdateComplete",
                                         "Update finished, waiting for reboot");
    if (da.auto_reboot != 1) {
        LOG(LOG_EVENT, "Manual reboot required to load new firmware, auto_reboot=%d", da.auto_reboot);
        return 0;
    }
    LOG(LOG_EVENT, "Rebooting device to load new firmware, auto_reboot=%d", da.auto_reboot);
    (void)build_and_send_sw_update_state(MSG_SW_UPGRADE_RSP, "Rebooting", "Rebooting device");
    idle_timeout = RECONNECT_AFTER_REBOOT;
    reboot_begin(&sequence, REBOOT_DELAY);
    return 0;
}

void sw_reboot_timer_cb(void *)
{
    if (reboot_is_due(&sequence))
        (void)platform_reboot("SRV_SW_UPD"); /* the controller sees a device that stays up by its version */
}

void firmware_flash_reset(void) { reboot_stop(&sequence); }
