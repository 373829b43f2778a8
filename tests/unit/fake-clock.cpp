#include "tests/unit/fake-clock.h"

#include <cerrno>

#include <signal.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "agent/ev.h"

static int64_t now_usec = 1000 * 1000000LL;

long fake_clock_nanoseconds;
bool fake_clock_is_real;
bool fake_clock_fails;
std::vector<struct timespec> fake_waits;
std::function<int64_t()> fake_wait_interruption;

void fake_clock_set(int64_t seconds, int64_t microseconds)
{
    now_usec = seconds * 1000000 + microseconds;
    fake_clock_nanoseconds = 0;
    fake_clock_is_real = false;
    fake_clock_fails = false;
    fake_waits.clear();
    fake_wait_interruption = nullptr;
}

void fake_clock_advance(int64_t seconds, int64_t microseconds)
{
    now_usec += seconds * 1000000 + microseconds;
}

int64_t fake_clock_now(void) { return now_usec; }

/* The program's own definition comes before the C library's. */
extern "C" int clock_gettime(clockid_t clock, struct timespec *time) noexcept
{
    if (clock != CLOCK_MONOTONIC || fake_clock_is_real)
        return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    if (fake_clock_fails) {
        errno = EINVAL;
        return -1;
    }
    *time = {static_cast<time_t>(now_usec / 1000000),
             static_cast<long>(now_usec % 1000000) * 1000 + fake_clock_nanoseconds};
    return 0;
}

static bool is_valid(const struct timespec *timeout)
{
    return timeout->tv_sec >= 0 && timeout->tv_nsec >= 0 && timeout->tv_nsec < 1000000000;
}

/* Lets the signals in that the mask does not hold back; true when one came. */
static bool let_signals_in(const sigset_t *mask)
{
    sigset_t pending, before;
    sigpending(&pending);
    bool came = false;
    for (int number : {SIGHUP, SIGUSR1, SIGTERM})
        came = came || (sigismember(&pending, number) == 1 && sigismember(mask, number) == 0);
    sigprocmask(SIG_SETMASK, mask, &before);
    sigprocmask(SIG_SETMASK, &before, nullptr);
    return came;
}

/* Descriptors and signals are asked for real, only the sleep is not. */
extern "C" int pselect(int count, fd_set *to_read, fd_set *to_write, fd_set *except,
                       const struct timespec *timeout, const sigset_t *mask)
{
    fake_waits.push_back(*timeout);
    if (!is_valid(timeout)) {
        errno = EINVAL;
        return -1;
    }
    if (let_signals_in(mask)) {
        errno = EINTR;
        return -1;
    }
    int64_t interrupted = fake_wait_interruption ? fake_wait_interruption() : 0;
    if (interrupted > 0) {
        now_usec += interrupted;
        errno = EINTR;
        return -1;
    }
    struct timeval at_once = {0, 0};
    int ready = select(count, to_read, to_write, except, &at_once);
    if (ready == 0)
        now_usec += timeout->tv_sec * 1000000 + timeout->tv_nsec / 1000;
    return ready;
}

void run_seconds(int64_t seconds)
{
    int64_t end = now_usec + seconds * 1000000;
    /* Bounded: descriptors that stay ready would stop the clock. */
    for (int passes = 0; now_usec < end && passes < 100000; passes++)
        ev_main();
}

bool run_until(const std::function<bool()> &condition, int64_t seconds)
{
    int64_t end = now_usec + seconds * 1000000;
    for (int passes = 0; !condition() && now_usec < end && passes < 100000; passes++)
        ev_main();
    return condition();
}
