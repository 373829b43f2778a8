/*
 * The connection status as local tools see it: one line of text in "/tmp/orv_state", replaced at every
 * change, and the countdown and action-pending rules around it.
 */
#pragma once

#include <cstdint>

#define ORV_STATE_FILE "/tmp/orv_state"

/* Status codes; their texts are orv_state_str. */
enum {
    ORV_NOT_CONNECTED = 0,
    ORV_RESOLVING_URL = 1,
    ORV_ID_NOT_CONFIGURED = 2,
    ORV_ACCESS_DENIED = 3,
    ORV_CONNECTING = 4,
    ORV_APPROVAL_PENDING = 5,
    ORV_CONNECTED = 6,
    ORV_TEXT_FROM_CONTROLLER = 7,
    ORV_STATE_COUNT = 8,
};
extern const char *const orv_state_str[ORV_STATE_COUNT];

/*
 * Publishes a status. `detail` (may be null) replaces or ends the text where the code allows it. Returns 0,
 * or -1 when the file cannot be written or there is no such code.
 */
int platform_set_orv_connection_state(int32_t code, const char *detail);

/* Callbacks of the timers "CLEAR ACTION PENDING" (10 s) and "STATUS NOTIFY" (60 s). */
void reset_action_pending_cb(void *name);
void status_notify_cb(void *name);

/* Stops both timers, for tests. */
void connection_status_reset(void);
