/*
 * What the controller tells the agent itself: a status text to show, how fast to come back, the time, a
 * reboot. The readers are handlers of the dispatcher: 0, or a status with the error text set.
 */
#pragma once

#include <cstdint>

#include <jansson.h>

/* {"Orvanta": {"status": text}}: shows the text as the connection status. */
int parse_and_apply_orvanta_status(const json_t *obj, char *error_text);

/*
 * {"waitTime": seconds, "deltaTime": seconds}: base and random spread of the slow rediscovery delay, clamped
 * to 32 bits. A good "waitTime" is kept even when "deltaTime" is refused.
 */
int parse_and_apply_retry_intvls(const json_t *obj, char *error_text);

/*
 * Sets the device's clock, in seconds since the epoch, with date(1), which takes the local time. Returns what
 * system(3) would, or -1 for a time that no calendar has.
 */
int set_system_time(int64_t seconds);

/*
 * {"reason": text, "delay": seconds, "force": boolean}, all optional: the device reboots after the delay (5 s
 * unless told, 1 s when it is less) and another 5 s, between which the connection is closed in order. A
 * further request moves a reboot whose close has not begun; after that it changes nothing but the reason.
 */
int parse_reboot_request(const json_t *obj, char *error_text);

/* "force" of the reboot requests as it was last received, 0 or 1; for platforms that know two ways to reboot.
 */
extern int32_t reboot_force;

/* Callback of "REBOOT" (first closes the connection) and "CLOSE FRAME DELAY" (then reboots). */
void reboot_timer_cb(void *name);

/* Stops a pending reboot, for tests. */
void directives_reset(void);
