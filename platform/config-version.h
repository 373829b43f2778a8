/*
 * The version of the device's configuration, which REGISTER tells the controller: a decimal text in a file
 * that the device's own tools rewrite.
 */
#pragma once

#include <cstdint>

#define CONFVER_FILE "/mnt/flash/config/confver"

/* Creates the file with version 1 unless it exists. Returns 0, or -1 with a log line. */
int platform_init_config_version(void);

/* The version, -1 when the file is missing. */
int32_t platform_get_da_config_version(void);

/*
 * Advances the version by one; what would be 2147483647 becomes 1. Returns 0, or -1 when there is none or it
 * cannot be written. For device tools: no flow of the agent counts.
 */
int platform_bump_da_config_version(void);
