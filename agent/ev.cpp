#include "agent/ev.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <new>

#include <sys/select.h>
#include <time.h>

#include "agent/signal-mask.h"

struct ev_fd_entry {
    int32_t fd;
    ev_fd_callback callback;
    void *arg;
    uint32_t events;
    bool dead; /* deleted while a walk is on: skipped, freed after it */
    ev_fd_entry *next;
};

struct ev_timer {
    int32_t expire_sec;
    int32_t expire_usec;
    ev_timer_callback callback;
    void *arg;
    ev_timer *next;
};

static ev_fd_entry *fd_list; /* newest first */
static ev_timer *timer_list; /* earliest first, equal ones in the order they were added */
static bool walking;         /* descriptor callbacks are being called */
static fd_set ready_to_read; /* results of the running pass */
static fd_set ready_to_write;

static const int32_t one_second = 1000000; /* microseconds */

/* ---- time ---- */

ev_time ev_get_time(void)
{
    struct timespec now;
    if (clock_gettime(CLOCK_MONOTONIC, &now) != 0)
        return {0, 0};
    return {static_cast<int32_t>(now.tv_sec), static_cast<int32_t>((now.tv_nsec + 500) / 1000)};
}

void get_monotonic_time(int64_t *seconds, int64_t *nanoseconds)
{
    struct timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    *seconds = now.tv_sec;
    *nanoseconds = now.tv_nsec;
}

/* a is at or before b */
static bool not_after(ev_time a, ev_time b) { return a.sec < b.sec || (a.sec == b.sec && a.usec <= b.usec); }

static ev_time plus(ev_time a, ev_time b)
{
    int64_t usec = int64_t{a.usec} + b.usec;
    int64_t sec = int64_t{a.sec} + b.sec + usec / one_second;
    return {static_cast<int32_t>(std::min<int64_t>(sec, INT32_MAX)), static_cast<int32_t>(usec % one_second)};
}

ev_time ev_wait_for(ev_time now, ev_time expiry)
{
    ev_time wait = {expiry.sec - now.sec, 0};
    if (now.usec > expiry.usec) {
        /* The difference is taken in this order on purpose: the wait is too long, never too short. */
        wait.usec = now.usec - expiry.usec + one_second;
        if (wait.sec != 0)
            wait.sec -= 1;
    } else {
        wait.usec = expiry.usec - now.usec;
    }
    return wait;
}

/* ---- descriptors ---- */

static ev_fd_entry *find_fd(int32_t fd)
{
    for (ev_fd_entry *entry = fd_list; entry; entry = entry->next)
        if (entry->fd == fd && !entry->dead)
            return entry;
    return nullptr;
}

static void sweep_dead_fds(void)
{
    for (ev_fd_entry **link = &fd_list; *link;) {
        ev_fd_entry *entry = *link;
        if (entry->dead) {
            *link = entry->next;
            delete entry;
        } else {
            link = &entry->next;
        }
    }
}

int ev_add_fd(int32_t fd, uint32_t events, ev_fd_callback callback, void *arg)
{
    if (fd < 0 || fd >= EV_FD_LIMIT)
        return -1;
    auto *entry = new (std::nothrow) ev_fd_entry{fd, callback, arg, events, false, fd_list};
    if (!entry)
        return -1;
    fd_list = entry;
    return 0;
}

void ev_del_fd(int32_t fd)
{
    ev_fd_entry *entry = find_fd(fd);
    if (!entry)
        return;
    entry->dead = true;
    /* The number may be reused within this pass: what select said of the old descriptor is not true of the
     * new one. */
    FD_CLR(fd, &ready_to_read);
    FD_CLR(fd, &ready_to_write);
    if (!walking)
        sweep_dead_fds();
}

uint32_t ev_watched(int32_t fd)
{
    const ev_fd_entry *entry = find_fd(fd);
    return entry ? entry->events : 0;
}

/* ---- timers ---- */

static ev_time expiry_of(const ev_timer *timer) { return {timer->expire_sec, timer->expire_usec}; }

ev_timer *ev_add_timer(ev_timer_callback callback, void *arg, int32_t seconds, int32_t microseconds)
{
    ev_time now = ev_get_time();
    int64_t expire_sec = int64_t{now.sec} + std::max(seconds, 0);
    int64_t expire_usec = int64_t{now.usec} + std::max(microseconds, 0);
    auto *timer = new (std::nothrow)
        ev_timer{static_cast<int32_t>(std::min<int64_t>(expire_sec, INT32_MAX)),
                 static_cast<int32_t>(std::min<int64_t>(expire_usec, INT32_MAX)), callback, arg, nullptr};
    if (!timer)
        return nullptr;

    ev_timer **link = &timer_list;
    while (*link && not_after(expiry_of(*link), expiry_of(timer)))
        link = &(*link)->next;
    timer->next = *link;
    *link = timer;
    return timer;
}

void ev_del_timer(ev_timer *handle)
{
    for (ev_timer **link = &timer_list; *link; link = &(*link)->next)
        if (*link == handle) {
            *link = handle->next;
            delete handle;
            return;
        }
}

int timer_expired(const ev_timer *handle) { return not_after(expiry_of(handle), ev_get_time()) ? 1 : 0; }

/* ---- one pass ---- */

/* Fills the sets from the list; returns the highest descriptor, -1 when there is none. */
static int32_t collect_fds(fd_set *to_read, fd_set *to_write)
{
    int32_t highest = -1;
    FD_ZERO(to_read);
    FD_ZERO(to_write);
    for (const ev_fd_entry *entry = fd_list; entry; entry = entry->next) {
        if (entry->events & EV_READ)
            FD_SET(entry->fd, to_read);
        if (entry->events & EV_WRITE)
            FD_SET(entry->fd, to_write);
        highest = std::max(highest, entry->fd);
    }
    return highest;
}

/*
 * How long this pass sleeps, and the time it takes as "now" for its timers.
 *
 * A pass compares its timers with the time at its beginning, so a timer is seen to be due only by the pass
 * after the one that slept up to it, and that pass sleeps its own wait first. Sleeping both waits in one go
 * fires the timer at the same moment and wakes the processor once instead of twice.
 */
static ev_time plan_sleep(ev_time now, ev_time *woken)
{
    *woken = now;
    if (!timer_list)
        return {0, 100000};
    ev_time expiry = expiry_of(timer_list);
    ev_time wait = ev_wait_for(now, expiry);
    if (not_after(expiry, now) || wait.sec < 0)
        return wait;
    *woken = plus(now, wait);
    ev_time second = ev_wait_for(*woken, expiry);
    return second.sec < 0 ? wait : plus(wait, second);
}

/* Microseconds beyond a second are carried, which pselect demands; a negative remainder fails as EINVAL. */
static int wait_for_events(int32_t highest, ev_time sleep)
{
    struct timespec timeout = {sleep.sec + sleep.usec / one_second, (sleep.usec % one_second) * 1000L};
    return pselect(highest + 1, &ready_to_read, &ready_to_write, nullptr, &timeout, signals_waiting_mask());
}

/* Calls back every entry whose event is watched and ready. Entries added meanwhile are at the head: not
 * visited. */
static void serve_fds(uint32_t event, fd_set *ready)
{
    walking = true;
    for (ev_fd_entry *entry = fd_list; entry; entry = entry->next)
        if (!entry->dead && (entry->events & event) && FD_ISSET(entry->fd, ready))
            entry->callback(entry->fd, static_cast<int32_t>(event), entry->arg);
    walking = false;
    sweep_dead_fds();
}

/* Unlinked first and called then: the callback may start a timer of the same name or delete any other. */
static void serve_timers(ev_time now)
{
    while (timer_list && not_after(expiry_of(timer_list), now)) {
        ev_timer *timer = timer_list;
        timer_list = timer->next;
        timer->callback(timer->arg);
        delete timer;
    }
}

void ev_main(void)
{
    ev_time now = ev_get_time();
    int32_t highest = collect_fds(&ready_to_read, &ready_to_write);
    ev_time woken;
    ev_time sleep = plan_sleep(now, &woken);

    int ready = wait_for_events(highest, sleep);
    if (ready > 0) {
        signals_let_in(); /* what a handler deletes now is no longer ready */
        serve_fds(EV_READ, &ready_to_read);
        serve_fds(EV_WRITE, &ready_to_write);
    }
    /* After a failed or interrupted wait the sets mean nothing. */
    FD_ZERO(&ready_to_read);
    FD_ZERO(&ready_to_write);

    /* Woken early, by a descriptor or a signal: the planned second half of the sleep never began. */
    if (!not_after(woken, ev_get_time()))
        woken = now;
    serve_timers(woken);
}

/* ---- for tests ---- */

int ev_count_timers(void)
{
    int count = 0;
    for (const ev_timer *timer = timer_list; timer; timer = timer->next)
        count++;
    return count;
}

const void *ev_timer_argument(int index)
{
    const ev_timer *timer = timer_list;
    while (index-- > 0)
        timer = timer->next;
    return timer->arg;
}

int ev_count_fds(void)
{
    int count = 0;
    for (const ev_fd_entry *entry = fd_list; entry; entry = entry->next)
        count += entry->dead ? 0 : 1;
    return count;
}

void ev_reset(void)
{
    while (timer_list)
        ev_del_timer(timer_list);
    for (ev_fd_entry *entry = fd_list; entry; entry = entry->next)
        entry->dead = true;
    sweep_dead_fds();
}
