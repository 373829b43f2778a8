#include "discovery/fd-wait.h"

#include <cerrno>

#include <sys/select.h>

#include "agent/da.h"
#include "agent/ev.h"
#include "agent/signal-mask.h"
#include "platform/heartbeat.h"

static const int64_t NANOSECONDS = 1000000000;

static int64_t now(void)
{
    int64_t seconds = 0;
    int64_t nanoseconds = 0;
    get_monotonic_time(&seconds, &nanoseconds);
    return seconds * NANOSECONDS + nanoseconds;
}

int64_t deadline_in(int32_t seconds) { return now() + seconds * NANOSECONDS; }

/* One wait for at most `remaining` nanoseconds: select's result. */
static int select_once(int fd, uint32_t event, int64_t remaining)
{
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    struct timespec limit = {};
    limit.tv_sec = static_cast<time_t>(remaining / NANOSECONDS);
    limit.tv_nsec = static_cast<long>(remaining % NANOSECONDS);
    return pselect(fd + 1, event == EV_READ ? &set : nullptr, event == EV_WRITE ? &set : nullptr, nullptr,
                   &limit, signals_waiting_mask());
}

wait_outcome wait_for_fd(int fd, uint32_t event, int64_t deadline)
{
    if (fd < 0 || fd >= EV_FD_LIMIT) {
        errno = EBADF;
        return WAIT_FAILED;
    }
    uint32_t generation = state_generation;
    platform_update_heartbeat(); /* a whole exchange may take minutes; each of its waits is bounded */
    for (;;) {
        int64_t remaining = deadline - now();
        if (remaining <= 0)
            return WAIT_TIMED_OUT;
        int ready = select_once(fd, event, remaining);
        if (ready > 0)
            signals_let_in();
        if (state_generation != generation)
            return WAIT_OVERTAKEN;
        if (ready > 0)
            return WAIT_READY;
        if (ready == 0)
            return WAIT_TIMED_OUT;
        if (errno != EINTR)
            return WAIT_FAILED;
    }
}
