/*
 * The safety net of an update. A flag file says that a configuration was applied which has not seen the
 * controller yet; while it is there, a lost controller that stays away for ten minutes (agent/
 * cfg-restore-timer.h) means going back to the last good configuration.
 */
#pragma once

#include <cstdint>

/*
 * 1 after an update in place, object-based or partial, until a pong shows that the connection survived it; 0
 * otherwise, an update that reboots the device included: its connection proves nothing yet.
 */
extern int32_t reconfig_pending;

/* Sets it. Pongs for the pings that are under way at this moment prove nothing and will not count. */
void expect_proof_of_reconfig(void);

/*
 * Back to the last good configuration: the backup over the stored one, then the reboot of
 * operations/config-reboot.h. The flag file goes when the copy is safely in place, or when there is no backup
 * and so nothing another try could mend; after a failed copy it stays, and the next outage tries again.
 */
void platform_restore_cfg(void);

/* A pong came: after an update in place the flag file goes. */
void platform_cancel_cfg_restore(void);
