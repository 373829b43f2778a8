#include "agent/ev.h"

#include <climits>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include "tests/unit/fake-clock.h"

/* What the callbacks saw, in order. */
static std::vector<std::string> seen;

static ev_timer *victim_timer; /* what a callback deletes or re-adds */
static int victim_fd = -1;

class loop_test : public testing::Test {
protected:
    void SetUp() override
    {
        ev_reset();
        fake_clock_set(1000);
        seen.clear();
        victim_timer = nullptr;
        victim_fd = -1;
    }
    void TearDown() override { ev_reset(); }
};

static void timer_cb(void *name) { seen.push_back(static_cast<const char *>(name)); }

static ev_timer *add(const char *name, int32_t seconds, int32_t microseconds = 0)
{
    return ev_add_timer(timer_cb, const_cast<char *>(name), seconds, microseconds);
}

static void fd_cb(int32_t fd, int32_t event, void *name)
{
    (void)fd;
    seen.push_back(std::string(static_cast<const char *>(name)) + (event == EV_READ ? " read" : " write"));
}

/* A descriptor that is readable and writable. */
static int ready_fd(void) { return eventfd(1, EFD_NONBLOCK | EFD_CLOEXEC); }

static int watch(int fd, const char *name, uint32_t events = EV_READ, ev_fd_callback callback = fd_cb)
{
    return ev_add_fd(fd, events, callback, const_cast<char *>(name));
}

using names = std::vector<std::string>;

/* ---- waits ---- */

TEST_F(loop_test, a_pass_without_timers_and_descriptors_waits_100_ms)
{
    ev_main();
    ASSERT_EQ(fake_waits.size(), 1u);
    EXPECT_EQ(fake_waits[0].tv_sec, 0);
    EXPECT_EQ(fake_waits[0].tv_nsec, 100000000);
}

TEST_F(loop_test, a_pass_without_timers_but_with_a_descriptor_waits_100_ms)
{
    int fd = eventfd(0, EFD_CLOEXEC);
    watch(fd, "quiet");
    ev_main();
    ASSERT_EQ(fake_waits.size(), 1u);
    EXPECT_EQ(fake_waits[0].tv_nsec, 100000000);
    EXPECT_EQ(seen, names{});
    close(fd);
}

struct wait_row {
    ev_time now, expiry, wait;
};

TEST_F(loop_test, computed_waits)
{
    static const wait_row rows[] = {
        {{10, 0}, {15, 0}, {5, 0}},
        {{10, 250000}, {15, 250000}, {5, 0}},
        {{10, 100000}, {10, 400000}, {0, 300000}},
        {{10, 0}, {12, 999999}, {2, 999999}},
        /* 0.3 s away with microseconds below now's: the difference is taken the other way round */
        {{10, 900000}, {11, 200000}, {0, 1700000}},
        {{10, 500000}, {15, 0}, {4, 1500000}},
        {{10, 1}, {15, 0}, {4, 1000001}},
        /* overdue by less than a second: a further second and more */
        {{10, 700000}, {10, 400000}, {0, 1300000}},
        /* overdue by a second and more: negative, no wait at all */
        {{12, 0}, {10, 0}, {-2, 0}},
        {{12, 500000}, {10, 0}, {-3, 1500000}},
    };
    for (const wait_row &row : rows) {
        ev_time wait = ev_wait_for(row.now, row.expiry);
        EXPECT_EQ(wait.sec, row.wait.sec) << row.now.sec << "." << row.now.usec << " to " << row.expiry.sec;
        EXPECT_EQ(wait.usec, row.wait.usec) << row.now.sec << "." << row.now.usec << " to " << row.expiry.sec;
    }
}

TEST_F(loop_test, a_million_microseconds_and_more_are_carried_before_the_wait)
{
    fake_clock_set(1000, 900000);
    add("T", 0, 0);               /* expires at 1000.9 */
    fake_clock_set(1001, 100000); /* overdue by 0.2 s; expire 900000 > now 100000, so sec -1: no wait */
    ev_main();
    EXPECT_EQ(seen, names{"T"});

    fake_clock_set(1000, 200000);
    add("U", 0, 0);
    fake_clock_set(1000, 700000); /* 1.5 s */
    ev_main();
    ASSERT_GE(fake_waits.size(), 1u);
    EXPECT_EQ(fake_waits.back().tv_sec, 1);
    EXPECT_EQ(fake_waits.back().tv_nsec, 500000000);
}

TEST_F(loop_test, a_timer_overdue_by_seconds_fires_without_a_wait)
{
    add("LATE", 1);
    fake_clock_advance(5);
    int64_t before = fake_clock_now();
    ev_main();
    EXPECT_EQ(seen, names{"LATE"});
    EXPECT_EQ(fake_clock_now(), before);
}

/* A quiet loop looks at a new timer within a quarter of a second. */
TEST_F(loop_test, a_timer_of_n_seconds_fires_between_n_and_n_plus_2)
{
    for (int64_t start : {0, 1, 250000, 499999, 500000, 750000, 999999})
        for (int n : {0, 1, 2, 5, 60, 600}) {
            for (int64_t later : {0, 1, 1000, 100000, 250000}) {
                fake_clock_set(5000, start);
                seen.clear();
                int64_t added = fake_clock_now();
                add("T", n);
                fake_clock_advance(0, later);
                EXPECT_TRUE(run_until([] { return !seen.empty(); }, 1000));
                int64_t took = fake_clock_now() - added;
                EXPECT_GE(took, n * 1000000LL)
                    << n << " s at ." << start << " looked at " << later << " us later";
                EXPECT_LE(took, (n + 2) * 1000000LL)
                    << n << " s at ." << start << " looked at " << later << " us later";
            }
        }
}

TEST_F(loop_test, a_quiet_loop_wakes_once_for_a_timer)
{
    add("T", 60);
    ev_main();
    EXPECT_EQ(seen, names{"T"});
    EXPECT_EQ(fake_waits.size(), 1u);
}

/* ---- timers ---- */

TEST_F(loop_test, timers_of_equal_expiry_fire_in_the_order_they_were_added)
{
    add("FIRST", 5);
    add("SECOND", 5);
    add("EARLIER", 4);
    add("THIRD", 5);
    run_seconds(8);
    EXPECT_EQ(seen, (names{"EARLIER", "FIRST", "SECOND", "THIRD"}));
}

TEST_F(loop_test, microseconds_decide_between_equal_seconds)
{
    add("LATER", 1, 500000);
    add("SOONER", 1, 400000);
    add("SOONEST", 1);
    run_seconds(5);
    EXPECT_EQ(seen, (names{"SOONEST", "SOONER", "LATER"}));
}

TEST_F(loop_test, microseconds_are_added_without_a_carry)
{
    fake_clock_set(1000, 900000);
    ev_timer *timer = add("T", 0, 200000); /* 1000 s and 1100000 us */
    fake_clock_set(1001, 0);
    EXPECT_EQ(timer_expired(timer), 1) << "the seconds are compared first";
}

TEST_F(loop_test, two_calls_make_two_timers)
{
    add("TWICE", 5);
    add("TWICE", 5);
    EXPECT_EQ(ev_count_timers(), 2);
    run_seconds(8);
    EXPECT_EQ(seen, (names{"TWICE", "TWICE"}));
    EXPECT_EQ(ev_count_timers(), 0);
}

static void again_cb(void *name)
{
    timer_cb(name);
    victim_timer = ev_add_timer(again_cb, name, 10, 0);
}

static void delete_victim_cb(void *name)
{
    timer_cb(name);
    ev_del_timer(victim_timer);
}

TEST_F(loop_test, a_callback_that_re_adds_itself_fires_once_per_period_until_it_is_deleted)
{
    victim_timer = ev_add_timer(again_cb, const_cast<char *>("EVERY 10"), 10, 0);
    run_seconds(35);
    EXPECT_EQ(seen.size(), 4u);

    seen.clear();
    ev_add_timer(delete_victim_cb, const_cast<char *>("DELETER"), 1, 0);
    run_seconds(100);
    EXPECT_EQ(seen, names{"DELETER"});
    EXPECT_EQ(ev_count_timers(), 0);
}

TEST_F(loop_test, a_callback_may_delete_a_timer_that_is_due_in_the_same_pass)
{
    ev_add_timer(delete_victim_cb, const_cast<char *>("DELETER"), 5, 0);
    victim_timer = add("VICTIM", 5);
    add("BYSTANDER", 5);
    run_seconds(8);
    EXPECT_EQ(seen, (names{"DELETER", "BYSTANDER"}));
}

static void delete_itself_cb(void *name)
{
    timer_cb(name);
    ev_del_timer(victim_timer); /* it has left the list already */
}

TEST_F(loop_test, a_callback_may_delete_itself)
{
    victim_timer = ev_add_timer(delete_itself_cb, const_cast<char *>("SELF"), 1, 0);
    run_seconds(5);
    EXPECT_EQ(seen, names{"SELF"});
    EXPECT_EQ(ev_count_timers(), 0);
}

static void spawn_cb(void *name)
{
    timer_cb(name);
    fake_clock_advance(0, 1);
    if (seen.size() < 10)
        ev_add_timer(spawn_cb, name, 0, 0);
}

TEST_F(loop_test, a_timer_of_0_seconds_added_by_a_callback_waits_for_the_next_pass)
{
    fake_clock_set(1000, 0);
    ev_add_timer(spawn_cb, const_cast<char *>("ZERO"), 0, 0);
    ev_main();
    EXPECT_EQ(seen.size(), 1u) << "a zero delay must not starve the descriptors";
    ev_main();
    EXPECT_EQ(seen.size(), 2u);
}

TEST_F(loop_test, a_timer_that_is_not_due_at_the_beginning_of_an_interrupted_pass_stays)
{
    add("SOON", 5);
    fake_wait_interruption = [] { return 1000000; };
    ev_main();
    EXPECT_EQ(seen, names{});
    EXPECT_EQ(ev_count_timers(), 1);
}

TEST_F(loop_test, an_interrupted_wait_goes_straight_on_to_the_timers)
{
    int fd = ready_fd();
    watch(fd, "READY");
    add("DUE", 0);
    fake_wait_interruption = [] { return 10; };
    ev_main();
    EXPECT_EQ(seen, names{"DUE"}) << "after a failed wait the sets mean nothing";
    close(fd);
}

TEST_F(loop_test, deleting_null_or_an_unknown_handle_is_harmless)
{
    add("T", 5);
    ev_del_timer(nullptr);
    ev_del_timer(reinterpret_cast<ev_timer *>(0x1000));
    EXPECT_EQ(ev_count_timers(), 1);
}

TEST_F(loop_test, a_timer_is_expired_from_its_very_microsecond_on)
{
    fake_clock_set(1000, 300000);
    ev_timer *timer = add("T", 5);
    fake_clock_set(1005, 299999);
    EXPECT_EQ(timer_expired(timer), 0);
    fake_clock_set(1005, 300000);
    EXPECT_EQ(timer_expired(timer), 1);
    fake_clock_set(1006, 0);
    EXPECT_EQ(timer_expired(timer), 1);
}

TEST_F(loop_test, delays_saturate_and_negative_ones_are_0)
{
    ev_timer *never = add("NEVER", INT32_MAX, INT32_MAX);
    ev_timer *at_once = add("AT ONCE", -5, -7);
    EXPECT_EQ(timer_expired(never), 0);
    EXPECT_EQ(timer_expired(at_once), 1);
    EXPECT_TRUE(run_until([] { return !seen.empty(); }, 3));
    EXPECT_EQ(seen, names{"AT ONCE"});
    EXPECT_EQ(ev_count_timers(), 1);
}

/* ---- descriptors ---- */

TEST_F(loop_test, readable_callbacks_come_before_writable_ones)
{
    int a = ready_fd();
    int b = ready_fd();
    watch(a, "a", EV_READ | EV_WRITE);
    watch(b, "b", EV_READ | EV_WRITE);
    ev_main();
    EXPECT_EQ(seen, (names{"b read", "a read", "b write", "a write"})); /* the newest entry first */
    close(a);
    close(b);
}

TEST_F(loop_test, only_what_is_watched_is_reported)
{
    int fd = ready_fd();
    watch(fd, "a", EV_WRITE);
    EXPECT_EQ(ev_watched(fd), static_cast<uint32_t>(EV_WRITE));
    ev_main();
    EXPECT_EQ(seen, names{"a write"});
    ev_del_fd(fd);
    EXPECT_EQ(ev_watched(fd), 0u);
    seen.clear();
    ev_main();
    EXPECT_EQ(seen, names{});
    close(fd);
}

TEST_F(loop_test, deleting_a_descriptor_that_is_registered_twice_removes_the_newer_entry)
{
    int fd = ready_fd();
    watch(fd, "older");
    watch(fd, "newer");
    EXPECT_EQ(ev_count_fds(), 2);
    ev_del_fd(fd);
    ev_main();
    EXPECT_EQ(seen, names{"older read"});
    ev_del_fd(fd);
    ev_del_fd(fd);
    EXPECT_EQ(ev_count_fds(), 0);
    close(fd);
}

TEST_F(loop_test, descriptors_that_select_cannot_hold_are_refused)
{
    EXPECT_EQ(watch(-1, "none"), -1);
    EXPECT_EQ(watch(1024, "too large"), -1);
    EXPECT_EQ(watch(INT_MAX, "far too large"), -1);
    EXPECT_EQ(ev_count_fds(), 0);
    ev_del_fd(-1);
    ev_del_fd(1024);
}

TEST_F(loop_test, the_largest_descriptor_that_select_holds_is_served)
{
    struct rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    int fd = ready_fd();
    int largest = fcntl(fd, F_DUPFD_CLOEXEC, 1023);
    ASSERT_EQ(largest, 1023) << "the limit of open files is " << limit.rlim_max;
    EXPECT_EQ(watch(largest, "1023"), 0);
    ev_main();
    EXPECT_EQ(seen, names{"1023 read"});
    close(largest);
    close(fd);
}

/* ---- callbacks that change the tables ---- */

static void delete_itself_fd_cb(int32_t fd, int32_t event, void *name)
{
    fd_cb(fd, event, name);
    ev_del_fd(fd);
}

TEST_F(loop_test, a_handler_may_free_itself)
{
    int a = ready_fd();
    int b = ready_fd();
    watch(a, "a");
    watch(b, "b", EV_READ | EV_WRITE, delete_itself_fd_cb);
    ev_main();
    EXPECT_EQ(seen, (names{"b read", "a read"})) << "its writable half is gone too";
    EXPECT_EQ(ev_count_fds(), 1);
    close(a);
    close(b);
}

static void delete_victim_fd_cb(int32_t fd, int32_t event, void *name)
{
    fd_cb(fd, event, name);
    ev_del_fd(victim_fd);
}

TEST_F(loop_test, a_handler_may_free_its_neighbours_before_and_behind_it)
{
    int fds[3] = {ready_fd(), ready_fd(), ready_fd()};
    for (int victim : {0, 2}) {
        ev_reset();
        seen.clear();
        victim_fd = fds[victim];
        watch(fds[0], "behind");
        watch(fds[1], "middle", EV_READ, delete_victim_fd_cb);
        watch(fds[2], "before");
        ev_main();
        ev_main();
        if (victim == 0)
            EXPECT_EQ(seen, (names{"before read", "middle read", "before read", "middle read"}));
        else
            EXPECT_EQ(seen,
                      (names{"before read", "middle read", "behind read", "middle read", "behind read"}));
        EXPECT_EQ(ev_count_fds(), 2);
    }
    for (int fd : fds)
        close(fd);
}

/* The neighbour's descriptor is closed and its number taken by another file, which is watched and not ready.
 */
static void reuse_victim_fd_cb(int32_t fd, int32_t event, void *name)
{
    fd_cb(fd, event, name);
    ev_del_fd(victim_fd);
    int quiet = eventfd(0, EFD_CLOEXEC);
    dup2(quiet, victim_fd);
    close(quiet);
    watch(victim_fd, "reused", EV_READ | EV_WRITE);
    ev_del_fd(fd);
}

TEST_F(loop_test, a_descriptor_number_that_is_reused_in_a_pass_is_not_ready_in_it)
{
    victim_fd = ready_fd();
    int fd = ready_fd();
    watch(victim_fd, "victim", EV_READ | EV_WRITE);
    watch(fd, "a", EV_READ, reuse_victim_fd_cb);
    ev_main();
    EXPECT_EQ(seen, names{"a read"});
    ev_main();
    EXPECT_EQ(seen, (names{"a read", "reused write"})) << "in the next pass it is what it is";
    close(fd);
    close(victim_fd);
}

TEST_F(loop_test, an_older_entry_is_not_served_on_the_readiness_of_the_one_that_was_deleted)
{
    int fd = ready_fd();
    watch(fd, "older");
    watch(fd, "newer", EV_READ, delete_itself_fd_cb);
    ev_main();
    EXPECT_EQ(seen, names{"newer read"});
    ev_main();
    EXPECT_EQ(seen, (names{"newer read", "older read"}));
    close(fd);
}

static void add_another_cb(int32_t fd, int32_t event, void *name)
{
    fd_cb(fd, event, name);
    if (ev_count_fds() < 2)
        watch(victim_fd, "added");
}

TEST_F(loop_test, a_descriptor_added_by_a_callback_is_served_from_the_next_pass_on)
{
    victim_fd = ready_fd();
    int fd = ready_fd();
    watch(fd, "a", EV_READ, add_another_cb);
    ev_main();
    EXPECT_EQ(seen, names{"a read"});
    ev_main();
    EXPECT_EQ(seen, (names{"a read", "added read", "a read"}));
    close(fd);
    close(victim_fd);
}

static void arm_cb(int32_t fd, int32_t event, void *name)
{
    fd_cb(fd, event, name);
    ev_del_fd(fd);
    add("ARMED", 0);
}

TEST_F(loop_test, a_ready_descriptor_ends_the_wait_and_its_callback_may_start_timers)
{
    int fd = ready_fd();
    add("FAR", 600);
    watch(fd, "a", EV_READ, arm_cb);
    int64_t before = fake_clock_now();
    ev_main();
    EXPECT_EQ(fake_clock_now(), before);
    EXPECT_TRUE(run_until([] { return seen.size() == 2; }, 3));
    EXPECT_EQ(seen, (names{"a read", "ARMED"}));
    close(fd);
}

/* ---- time ---- */

TEST_F(loop_test, the_time_is_rounded_to_microseconds_and_0_without_a_clock)
{
    fake_clock_set(123, 456789);
    EXPECT_EQ(ev_get_time().sec, 123);
    EXPECT_EQ(ev_get_time().usec, 456789);
    int64_t seconds, nanoseconds;
    get_monotonic_time(&seconds, &nanoseconds);
    EXPECT_EQ(seconds, 123);
    EXPECT_EQ(nanoseconds, 456789000);
    fake_clock_nanoseconds = 499;
    EXPECT_EQ(ev_get_time().usec, 456789);
    fake_clock_nanoseconds = 500;
    EXPECT_EQ(ev_get_time().usec, 456790);
    fake_clock_fails = true;
    EXPECT_EQ(ev_get_time().sec, 0);
    EXPECT_EQ(ev_get_time().usec, 0);
}
