/*
 * How far a software upgrade is: what its stages share, and the progress file that shows it to the device.
 */
#pragma once

#include <cstdint>

#define FIRMWARE_FILE "/tmp/firmware" /* the downloaded image */
#define UPGRADE_PROGRESS_FILE                                                                                \
    "/tmp/firmware.progress" /* one line without a newline; blocks further upgrades */

extern int32_t
    upgrade_in_progress;         /* 1 from the accepted request until the upgrade ends, fails or is stopped */
extern int32_t upgrade_flashing; /* 1 while the upgrade script runs: only its end ends the upgrade */

/* "swUpdateState": the download's state while an upgrade is in progress, otherwise 0. */
int32_t platform_get_upgrade_status(void);

/* Puts this text into the progress file, never through a link. A text that cannot be written is no failure.
 */
void platform_write_upgrade_progress(const char *text);

/* No upgrade is in progress any more: clears the flag and removes the progress file. */
void end_upgrade(void);
