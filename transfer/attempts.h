/*
 * When to try again, and when to give up. A link may break as often as it likes as long as each try brings
 * the transfer forward; tries that bring nothing are counted.
 */
#pragma once

#include <cstdint>

enum {
    VAIN_ATTEMPTS = 10,       /* so many in a row that brought nothing: it is given up */
    STEP_FORWARD = 64 * 1024, /* bytes beyond all earlier tries that count as getting forward */
    FIRST_WAIT_MS = 1000,     /* before the second try; doubled for each further one */
    LONGEST_WAIT_MS = 60000,
    LONGEST_RETRY_AFTER = 300, /* seconds that a server may ask for */
};

struct attempts {
    int vain = 0;     /* tries in a row that brought nothing */
    int64_t best = 0; /* the farthest that any try has come, in bytes */
};

/*
 * A try has failed after it had come as far as `reached` (counted from the file's beginning). Returns the
 * milliseconds to wait before the next one, without the spread, or -1 when there is to be none. `retry_after`
 * are the seconds that the server asked for, 0 when it did not.
 */
int64_t wait_after_failure(attempts *state, int64_t reached, int64_t retry_after);

/* The same wait, longer by up to a quarter: a fleet must not come back in step. `draw` is any number. */
int64_t spread_wait(int64_t milliseconds, uint32_t draw);
