/*
 * The heartbeat file: an outside watchdog looks at its age.
 */
#pragma once

#define HEARTBEAT_FILE "/tmp/heartbeat_device-agent"

/* Creates the file, empty, mode 0600. */
void platform_create_heartbeat(void);

/* Touches it; nothing happens before it is created. Waits that keep the loop away for long call this too. */
void platform_update_heartbeat(void);
