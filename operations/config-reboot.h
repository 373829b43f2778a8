/*
 * The reboot that puts a stored configuration into force: 10 s ("REBOOT DELAY"), the connection is closed in
 * order, 5 s ("CLOSE FRAME DELAY"), then the shutdown script with "SRV_CFG_UPD". Where the script fails it is
 * run again every minute: a device that has lost its controller must not stay with what made it so.
 */
#pragma once

/*
 * Begins it, or begins its first 10 s anew. An unproven configuration has not seen the controller yet: the
 * device goes down with its flag file, even if the running configuration has reached the controller
 * meanwhile.
 */
enum stored_config { CONFIG_PROVEN, CONFIG_UNPROVEN };
void start_config_reboot(stored_config config);

/* Whether the stored configuration waits for its reboot: it is not the one that runs. */
bool config_reboot_pending(void);

/* Callback of both timers. */
void config_reboot_timer_cb(void *name);

/* Stops a pending reboot, for tests. */
void config_reboot_reset(void);
