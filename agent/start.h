/*
 * Start-up in its order, the restart counter and the version file.
 */
#pragma once

#define RESTARTS_FILE "/tmp/restarts"
#define DA_VERSION_FILE "/mnt/flash/config/DA_VERSION"

/* Starts everything and runs the loop for ever. Returns -1 only when the start fails. */
int start_device_agent(int debug_level);

/* Puts the record to its defaults and learns who this device is. Returns 0, or -1 without an identity. */
int init_device_agent(int debug_level);
