/*
 * Shifts a program's wall clock by a number of seconds that may change while it runs, and leaves its monotonic
 * clock alone, as on a device whose clock is set late. Preloaded by lab/wallclock.py before libfaketime, which
 * can change both clocks only together: a jump of the monotonic one would fire every timer at once.
 *
 * WALLCLOCK_FILE names the file that holds the shift: eight bytes, a signed integer as this machine writes it.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

static const volatile int64_t *shift_seconds;
static int (*next_clock_gettime)(clockid_t, struct timespec *);

__attribute__((constructor)) static void look_up(void)
{
    static const int64_t none = 0;
    next_clock_gettime = (int (*)(clockid_t, struct timespec *))dlsym(RTLD_NEXT, "clock_gettime");
    const char *path = getenv("WALLCLOCK_FILE");
    int fd = path ? open(path, O_RDONLY | O_CLOEXEC) : -1;
    void *shared = fd == -1 ? MAP_FAILED : mmap(NULL, sizeof(none), PROT_READ, MAP_SHARED, fd, 0);
    if (fd != -1)
        close(fd);
    shift_seconds = shared == MAP_FAILED ? &none : shared;
}

int clock_gettime(clockid_t clock, struct timespec *now)
{
    if (!next_clock_gettime)
        look_up(); /* called by another library's constructor */
    int result = next_clock_gettime(clock, now);
    if (result == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE))
        now->tv_sec += *shift_seconds;
    return result;
}

time_t time(time_t *out)
{
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    if (out)
        *out = now.tv_sec;
    return now.tv_sec;
}

int gettimeofday(struct timeval *restrict now, void *restrict zone)
{
    (void)zone;
    struct timespec exact;
    int result = clock_gettime(CLOCK_REALTIME, &exact);
    now->tv_sec = exact.tv_sec;
    now->tv_usec = exact.tv_nsec / 1000;
    return result;
}
