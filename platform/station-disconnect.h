/*
 * Sends a Wi-Fi client away: the configuration daemon passes it on to the radios.
 */
#pragma once

/*
 * The device's operation: a client's MAC, or "ALL" for every one. Returns 0, or 1 with a log line when it was
 * not done. Null until it is installed; commands that need it are refused then.
 */
extern int (*sta_disconnect_cb)(const char *mac);

/* Installs the operation. */
void install_station_disconnect(void);

/* The operation itself. Blocks for at most SCM_TIMEOUT. */
int platform_sta_disconnect(const char *mac);
