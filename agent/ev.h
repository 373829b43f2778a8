/*
 * The event loop: watched descriptors and one-shot timers, served by one thread with pselect(2). All work of
 * the agent happens in its callbacks. Callbacks may add and delete any descriptor or timer, their own and
 * their neighbours' too.
 */
#pragma once

#include <cstdint>

/* What to watch a descriptor for (bits), and what a callback is told (one of them). */
enum {
    EV_READ = 1,
    EV_WRITE = 2,
};

/* select(2) holds descriptors below this number. */
enum { EV_FD_LIMIT = 1024 };

using ev_fd_callback = void (*)(int32_t fd, int32_t event, void *arg);
using ev_timer_callback = void (*)(void *arg);

struct ev_timer; /* a handle: valid until the timer fires or is deleted */

/*
 * Watches a descriptor. An existing entry of the same descriptor stays: whoever changes the events deletes
 * first. Returns 0, or -1 for a descriptor that select cannot hold or when memory is short.
 */
int ev_add_fd(int32_t fd, uint32_t events, ev_fd_callback callback, void *arg);

/* Forgets the newest entry of a descriptor, readiness in the running pass included; nothing happens if there
 * is none. */
void ev_del_fd(int32_t fd);

/* The events that the newest entry of a descriptor is watched for, 0 when there is none. */
uint32_t ev_watched(int32_t fd);

/*
 * Starts a one-shot timer. By convention the argument is the timer's name text. Two calls make two timers:
 * callers keep the handle and clear it at the top of the callback. Times too far away are cut to the largest
 * one, negative ones count as 0. Returns null when memory is short.
 */
ev_timer *ev_add_timer(ev_timer_callback callback, void *arg, int32_t seconds, int32_t microseconds);

/* Stops a timer. A handle that is not in the list, null too, is harmless. */
void ev_del_timer(ev_timer *handle);

/* 1 when the timer's time has come, else 0. The handle must be live. */
int timer_expired(const ev_timer *handle);

/* Serves one pass: waits for descriptors or the earliest timer, then calls what is due. */
void ev_main(void);

/* Monotonic time; microseconds are rounded. Both 0 when the clock cannot be read. */
struct ev_time {
    int32_t sec;
    int32_t usec;
};
ev_time ev_get_time(void);

/* Monotonic time for measuring intervals. */
void get_monotonic_time(int64_t *seconds, int64_t *nanoseconds);

/*
 * How long a pass that began at `now` waits for a timer: at least the remainder, and up to two seconds more.
 * A timer of n seconds thus fires between n and n+2 seconds on a quiet loop; all of this agent's timers
 * tolerate that. The result may be negative in seconds (overdue by more than a second) and carry a million
 * microseconds or more.
 */
ev_time ev_wait_for(ev_time now, ev_time expiry);

/* For tests: how many timers and descriptors are there, the argument of the index'th timer (earliest first,
 * the index below the count); forgets all of them. */
int ev_count_timers(void);
int ev_count_fds(void);
const void *ev_timer_argument(int index);
void ev_reset(void);
