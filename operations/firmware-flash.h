/*
 * The second half of a firmware upgrade: the device's script writes the downloaded image to its flash, and if
 * the request wished so the device reboots: 10 s ("REBOOT DELAY"), a close frame "DEV_SW_REBOOT", 5 s ("CLOSE
 * FRAME DELAY"), then the shutdown script with "SRV_SW_UPD".
 */
#pragma once

/*
 * Runs "/usr/bin/scripts/upgrade.sh /tmp/firmware" and tells the controller what came of it; the upgrade has
 * ended then. Holds the loop up until the script has ended, on purpose without a bound: half a flash is worse
 * than a long wait. The heartbeat goes on and signals are served: SIGTERM ends the agent, not the script.
 * Returns 0.
 */
int platform_do_upgrade(void);

/* Callback of both timers of the reboot. */
void sw_reboot_timer_cb(void *name);

/* For tests: stops a reboot that is under way. */
void firmware_flash_reset(void);
