/*
 * The two stages of a reboot that the agent decides: after a delay the connection is closed in order, and
 * when the close frame has had its time the device goes down. Each kind of reboot has a sequence of its own.
 */
#pragma once

#include <cstdint>

#include "agent/named-timer.h"

struct reboot_sequence {
    named_timer delay;                   /* both timers have the same callback, which asks reboot_is_due */
    named_timer close_frame;             /* "CLOSE FRAME DELAY" */
    int32_t close_sent;                  /* the second stage */
    void (*say_goodbye)(void) = nullptr; /* closes the connection; null: close_websocket, with "DEV_REBOOT" */
};

/* Begins, or begins the delay anew. Once the connection is closed nothing delays the reboot any more. */
void reboot_begin(reboot_sequence *sequence, int32_t seconds);

/* The callback's first line. False after the delay: the connection is being closed. True 5 s later: reboot.
 */
bool reboot_is_due(reboot_sequence *sequence);

/* The device did not go down: the second stage comes again after so many seconds. */
void reboot_again(reboot_sequence *sequence, int32_t seconds);

/* Whether it has begun and not come to its end. */
bool reboot_is_pending(const reboot_sequence &sequence);

/* Stops it, for tests. */
void reboot_stop(reboot_sequence *sequence);
