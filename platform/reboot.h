/*
 * Restarting the device.
 */
#pragma once

/*
 * Runs "/usr/bin/scripts/shutdown.sh" with the reason as its one argument and waits for it: the script
 * decides when the device goes down. The caller has closed the connection by then. Returns 0, or the
 * script's wait status (-1 when it could not be run), which is logged: the device stays up then.
 */
int platform_reboot(const char *reason);
