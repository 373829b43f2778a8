#include "discovery/fd-wait.h"

#include <cerrno>
#include <chrono>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "agent/da.h"
#include "agent/ev.h"
#include "agent/owners.h"
#include "agent/signal-mask.h"
#include "tests/unit/support.h"

static volatile sig_atomic_t signals_seen;

static void count_signal(int) { signals_seen = signals_seen + 1; }

static void enter_another_state(int) { state_generation++; }

static void on_signal(int number, void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    sigaction(number, &action, nullptr);
}

static long long elapsed_ms(const std::function<void()> &work)
{
    auto start = std::chrono::steady_clock::now();
    work();
    auto taken = std::chrono::steady_clock::now() - start;
    return std::chrono::duration_cast<std::chrono::milliseconds>(taken).count();
}

/* A point 200 ms ahead: long enough to be told from none at all. */
static int64_t soon(void) { return deadline_in(0) + 200000000; }

class fd_wait_test : public testing::Test {
protected:
    static void SetUpTestSuite() { signals_block(); }

    void SetUp() override
    {
        fresh_agent();
        signals_seen = 0;
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
    }

    void TearDown() override
    {
        struct itimerval off = {};
        setitimer(ITIMER_REAL, &off, nullptr);
        for (int number : {SIGHUP, SIGUSR1})
            on_signal(number, SIG_DFL);
        close(ends[0]);
        close(ends[1]);
    }

    int ends[2];
};

TEST_F(fd_wait_test, ready)
{
    EXPECT_EQ(WAIT_READY, wait_for_fd(ends[0], EV_WRITE, deadline_in(5)));
    ASSERT_EQ(1, write(ends[1], "x", 1));
    EXPECT_EQ(WAIT_READY, wait_for_fd(ends[0], EV_READ, deadline_in(5)));
}

TEST_F(fd_wait_test, time_out)
{
    wait_outcome outcome = WAIT_FAILED;
    long long taken = elapsed_ms([&] { outcome = wait_for_fd(ends[0], EV_READ, soon()); });
    EXPECT_EQ(WAIT_TIMED_OUT, outcome);
    EXPECT_GE(taken, 199);
}

TEST_F(fd_wait_test, a_deadline_in_the_past_is_over_however_ready_the_descriptor)
{
    EXPECT_EQ(WAIT_TIMED_OUT, wait_for_fd(ends[0], EV_WRITE, deadline_in(0) - 1));
    EXPECT_EQ(WAIT_TIMED_OUT, wait_for_fd(ends[0], EV_WRITE, deadline_in(-100)));
}

TEST_F(fd_wait_test, descriptors_that_select_cannot_hold)
{
    for (int fd : {-1, 1024, 5000}) {
        errno = 0;
        EXPECT_EQ(WAIT_FAILED, wait_for_fd(fd, EV_READ, deadline_in(5))) << fd;
        EXPECT_EQ(EBADF, errno) << fd;
    }
    int closed = dup(ends[0]);
    close(closed);
    EXPECT_EQ(WAIT_FAILED, wait_for_fd(closed, EV_READ, deadline_in(5)));
}

TEST_F(fd_wait_test, a_signal_that_changes_nothing_only_interrupts)
{
    on_signal(SIGHUP, count_signal);
    kill(getpid(), SIGHUP); /* held back until the wait lets it in */
    EXPECT_EQ(0, signals_seen);
    wait_outcome outcome = WAIT_FAILED;
    long long taken = elapsed_ms([&] { outcome = wait_for_fd(ends[0], EV_READ, soon()); });
    EXPECT_EQ(WAIT_TIMED_OUT, outcome);
    EXPECT_EQ(1, signals_seen);
    EXPECT_GE(taken, 199) << "the remaining time was not waited for";
}

/* However many signals: together they do not make the wait longer. */
TEST_F(fd_wait_test, signals_do_not_prolong_the_wait)
{
    on_signal(SIGALRM, count_signal);
    struct itimerval every = {{0, 20000}, {0, 20000}};
    setitimer(ITIMER_REAL, &every, nullptr);
    wait_outcome outcome = WAIT_FAILED;
    long long taken = elapsed_ms([&] { outcome = wait_for_fd(ends[0], EV_READ, soon()); });
    EXPECT_EQ(WAIT_TIMED_OUT, outcome);
    EXPECT_GE(signals_seen, 2);
    EXPECT_LT(taken, 3000);
}

TEST_F(fd_wait_test, a_signal_that_enters_another_state_ends_the_wait)
{
    on_signal(SIGUSR1, enter_another_state);
    kill(getpid(), SIGUSR1);
    EXPECT_EQ(WAIT_OVERTAKEN, wait_for_fd(ends[0], EV_READ, deadline_in(30)));
}

TEST_F(fd_wait_test, a_state_entered_before_the_wait_does_not_count)
{
    state_generation++;
    EXPECT_EQ(WAIT_READY, wait_for_fd(ends[0], EV_WRITE, deadline_in(5)));
}
