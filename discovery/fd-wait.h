/*
 * Waiting for one descriptor outside the event loop, in the onboarding exchange. Signals are let in here and
 * only here; what their handlers may do to a running discovery pass shows in the result.
 */
#pragma once

#include <cstdint>

enum wait_outcome {
    WAIT_FAILED = -1,
    WAIT_TIMED_OUT = 0,
    WAIT_READY = 1,
    WAIT_OVERTAKEN = 2, /* a signal entered another state: stop at once, change nothing */
};

/* A point on the monotonic clock, in nanoseconds. */
int64_t deadline_in(int32_t seconds);

/*
 * Waits until the descriptor is readable (EV_READ) or writable (EV_WRITE) or the deadline is over; a deadline
 * in the past has timed out, however ready the descriptor may be. A signal that entered no other state just
 * interrupts: the remaining time is waited for. WAIT_FAILED leaves errno set.
 */
wait_outcome wait_for_fd(int fd, uint32_t event, int64_t deadline);
