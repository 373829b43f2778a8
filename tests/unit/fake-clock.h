/*
 * A monotonic clock that stands still until the agent waits: the loop's wait returns at once, and the clock
 * has moved by what was asked for. Ten minutes pass in no time, and to the microsecond. The wall clock stays
 * the real one.
 */
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include <time.h>

/* Sets the clock, forgets the waits and the interruption. */
void fake_clock_set(int64_t seconds, int64_t microseconds = 0);

/* Moves the clock. */
void fake_clock_advance(int64_t seconds, int64_t microseconds = 0);

/* What the clock shows, in microseconds. */
int64_t fake_clock_now(void);

/* Nanoseconds that the clock shows on top of its microseconds; 0 unless set. */
extern long fake_clock_nanoseconds;

/* The clock is the machine's own as long as this is set: for what waits elsewhere than in the loop. */
extern bool fake_clock_is_real;

/* The clock fails as long as this is set. */
extern bool fake_clock_fails;

/* What the agent asked its waits for, oldest first. */
extern std::vector<struct timespec> fake_waits;

/*
 * Called in each wait, before the clock moves. Returning a positive number of microseconds ends the wait
 * after them, as a signal does; 0 lets it be.
 */
extern std::function<int64_t()> fake_wait_interruption;

/* Runs passes of the loop until the clock has moved this far (and as much further as the last pass sleeps).
 */
void run_seconds(int64_t seconds);

/* Runs passes until the condition holds; false when it does not within so many seconds of the clock. */
bool run_until(const std::function<bool()> &condition, int64_t seconds);
