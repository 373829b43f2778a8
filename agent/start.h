/*
 * Start-up in its order, the restart counter, the version file and the heartbeat.
 */
#pragma once

#define RESTARTS_FILE "/tmp/restarts"
#define DA_VERSION_FILE "/mnt/flash/config/DA_VERSION"
#define HEARTBEAT_FILE "/tmp/heartbeat_device-agent"

/* Starts everything and runs the loop for ever. Returns -1 only when the start fails. */
int start_device_agent(int debug_level);

/* Puts the record to its defaults and learns who this device is. Returns 0, or -1 without an identity. */
int init_device_agent(int debug_level);

/* Touches the heartbeat file: an outside watchdog looks at its age. */
void platform_update_heartbeat(void);
