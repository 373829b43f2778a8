/*
 * Why the controller connection was last closed and why the device last rebooted, in small files on flash:
 * the time in seconds since the epoch, a colon and the reason, "%d:%s". The reboot reason is written by the
 * device's own reboot path; the agent only reads it.
 */
#pragma once

#include <cstdint>

#include "agent/ev.h"

#define LAST_CLOSE_REASON_FILE "/mnt/flash/.last_close_reason"
#define LAST_REBOOT_REASON_FILE "/mnt/flash/.last_reboot_reason"

enum { REASON_SIZE = 130 };

/* Replaces the file with now and the reason. Returns 0, or -1 with a log line when it cannot be written. */
int save_reason(const char *path, const char *reason);

/*
 * Returns the stored time and fills the reason, cut to 129 characters. A missing file gives 0 and leaves the
 * reason untouched, as does a file without a colon.
 */
int32_t get_reason(const char *path, char (&reason_out)[REASON_SIZE]);

/* The controller-update timer of the software upgrade, and its cancelling; twice in a row is harmless. */
extern ev_timer *orv_upd_timer;
void del_orv_upd_timer(void);
