/*
 * A timer with a name and one stored handle, so that there is never a second one of it: arming it again moves
 * it. Its callback begins with timer_fired, because the handle is dangling from then on.
 */
#pragma once

#include "agent/ev.h"

struct named_timer {
    const char *name; /* in upper case, also the argument of the callback */
    ev_timer_callback callback;
    ev_timer *handle; /* null when not running */
};

/* (Re)starts the timer; it fires once, `seconds` from now. */
void timer_arm(named_timer &timer, int32_t seconds);

/* Stops the timer; harmless when it is not running. */
void timer_disarm(named_timer &timer);

/* The first line of every timer callback: forgets the handle. */
void timer_fired(named_timer &timer);
