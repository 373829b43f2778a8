#include "agent/signal-mask.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include "agent/ev.h"
#include "discovery/fd-wait.h"
#include "tests/unit/support.h"

static int pipe_ends[2];
static volatile sig_atomic_t signals_seen;
static int signals_seen_by_callback;
static int callbacks;

static void count_signal(int) { signals_seen = signals_seen + 1; }

static void delete_the_reader(int) { ev_del_fd(pipe_ends[0]); }

static void note_callback(int32_t, int32_t, void *)
{
    callbacks++;
    signals_seen_by_callback = signals_seen;
}

/* A descriptor that is readable all the time, as on a connection with steady traffic. */
class busy_loop : public testing::Test {
protected:
    void SetUp() override
    {
        fresh_agent();
        signals_seen = 0;
        signals_seen_by_callback = 0;
        callbacks = 0;
        signals_block();
        ASSERT_EQ(pipe(pipe_ends), 0);
        ASSERT_EQ(write(pipe_ends[1], "x", 1), 1);
        ASSERT_EQ(ev_add_fd(pipe_ends[0], EV_READ, note_callback, nullptr), 0);
    }
    void TearDown() override
    {
        ev_reset();
        close(pipe_ends[0]);
        close(pipe_ends[1]);
    }
    static void handle(int number, void (*handler)(int))
    {
        struct sigaction action = {};
        action.sa_handler = handler;
        sigaction(number, &action, nullptr);
    }
};

TEST_F(busy_loop, a_pending_signal_is_served_before_the_descriptor)
{
    handle(SIGHUP, count_signal);
    raise(SIGHUP);
    ASSERT_EQ(signals_seen, 0) << "outside of a wait it is blocked";
    ev_main();
    EXPECT_EQ(callbacks, 1);
    EXPECT_EQ(signals_seen_by_callback, 1);
    raise(SIGHUP);
    EXPECT_EQ(signals_seen, 1) << "after the pass it is blocked again";
}

TEST_F(busy_loop, a_descriptor_that_the_handler_deletes_is_not_called)
{
    handle(SIGHUP, delete_the_reader);
    raise(SIGHUP);
    ev_main();
    EXPECT_EQ(callbacks, 0);
}

TEST_F(busy_loop, a_wait_for_a_ready_descriptor_lets_signals_in_too)
{
    handle(SIGHUP, count_signal);
    raise(SIGHUP);
    EXPECT_EQ(wait_for_fd(pipe_ends[0], EV_READ, deadline_in(5)), WAIT_READY);
    EXPECT_EQ(signals_seen, 1);
}
