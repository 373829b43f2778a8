/*
 * The stored configuration and its last good copy. Whatever is written here is written beside its place,
 * synced and renamed over it: a kill or a power cut leaves the old file or the new one, never a torn one.
 */
#pragma once

#include <string_view>

#define CONFIG_FILE "/mnt/flash/config/config.txt"             /* in CLI form, what clish takes with "-f" */
#define CONFIG_BACKUP_FILE "/mnt/flash/config/bkup-config.txt" /* as it was before the last update */
#define PARTIAL_CONFIG_FILE "/tmp/partial_config"              /* a received fragment */

enum config_copied {
    COPY_FAILED = -1, /* logged; the destination is untouched */
    COPY_DONE = 0,
    COPY_NO_SOURCE = 1, /* logged; there is nothing to copy, the destination is untouched */
};

/*
 * Copies the stored configuration to the backup. Blocks until /bin/cp ends. While a stored configuration
 * waits for its reboot the backup of before is the last good one, and stays.
 */
config_copied backup_config(void);

/* Copies the backup over the stored configuration; the backup stays. Blocks until /bin/cp ends. */
config_copied restore_config_backup(void);

/* Replace the stored configuration, which keeps its mode, and the fragment (0600). 0, or -1 with errno. */
int store_config(std::string_view text);
int store_partial_config(std::string_view text);
