/*
 * Restarting the device.
 */
#pragma once

/*
 * Runs "/usr/bin/scripts/shutdown.sh" with the reason as its one argument and waits for it: the script
 * decides when the device goes down. The caller has closed the connection by then. A script that fails is
 * logged; the agent goes on.
 */
void platform_reboot(const char *reason);
