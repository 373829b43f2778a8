/*
 * The reboot that puts a stored configuration into force: 10 s ("REBOOT DELAY"), the connection is closed in
 * order, 5 s ("CLOSE FRAME DELAY"), then the shutdown script with "SRV_CFG_UPD".
 */
#pragma once

/* Begins it, or begins its first 10 s anew. Once the connection is closed nothing delays it any more. */
void start_config_reboot(void);

/* Callback of both timers. */
void config_reboot_timer_cb(void *name);

/* Stops a pending reboot, for tests. */
void config_reboot_reset(void);
