#include "agent/signals.h"

#include <cstdlib>
#include <string>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include "agent/run.h"
#include "agent/signal-mask.h"
#include "tests/unit/connection-test.h"

class signals_test : public connection_test {
protected:
    static void SetUpTestSuite()
    {
        signals_block();
        platform_init_signal_handler();
    }
    static void TearDownTestSuite()
    {
        for (int number : {SIGHUP, SIGUSR1, SIGTERM})
            signal(number, SIG_DFL);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
    }
};
using signals_death_test = signals_test;

/* A signal that came before, and a pass of the loop that lets it in. */
static void signal_in_the_wait(int number)
{
    raise(number);
    ev_main();
}

/* ---- where they strike ---- */

TEST_F(signals_test, a_signal_waits_until_the_agent_waits)
{
    da.debug_level = 1;
    raise(SIGHUP);
    EXPECT_EQ(da.debug_level, 1) << "nothing is interrupted";
    EXPECT_FALSE(was_logged("sighandler invoked, signal  1"));
    ev_main();
    EXPECT_EQ(da.debug_level, 2);
    EXPECT_TRUE(was_logged("sighandler invoked, signal  1"));
    ev_main();
    EXPECT_EQ(da.debug_level, 2) << "it strikes once";
}

TEST_F(signals_test, a_signal_strikes_while_a_child_is_waited_for)
{
    da.debug_level = 1;
    run_shell("kill -HUP $PPID");
    EXPECT_EQ(da.debug_level, 2);
}

TEST_F(signals_test, the_mask_of_the_waits_lets_the_three_in)
{
    sigset_t blocked;
    sigprocmask(SIG_SETMASK, nullptr, &blocked);
    for (int number : {SIGHUP, SIGUSR1, SIGTERM}) {
        EXPECT_EQ(sigismember(&blocked, number), 1) << number;
        EXPECT_EQ(sigismember(signals_waiting_mask(), number), 0) << number;
    }
    EXPECT_EQ(sigismember(&blocked, SIGINT), 0);
}

TEST_F(signals_test, they_never_interrupt_each_other)
{
    for (int number : {SIGHUP, SIGUSR1, SIGTERM}) {
        struct sigaction action;
        sigaction(number, nullptr, &action);
        for (int other : {SIGHUP, SIGUSR1, SIGTERM})
            EXPECT_EQ(sigismember(&action.sa_mask, other), 1) << other << " during " << number;
    }
}

TEST_F(signals_test, a_broken_pipe_is_no_reason_to_die)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[0]);
    EXPECT_EQ(write(ends[1], "x", 1), -1);
    close(ends[1]);
}

/* ---- SIGHUP ---- */

TEST_F(signals_test, sighup_cycles_the_log_level)
{
    da.debug_level = 0;
    for (int32_t expected : {1, 2, 3, 0, 1, 2, 3, 0}) {
        signal_in_the_wait(SIGHUP);
        EXPECT_EQ(da.debug_level, expected);
    }
    da.debug_level = 7;
    signal_in_the_wait(SIGHUP);
    EXPECT_EQ(da.debug_level, 0);
}

/* ---- SIGUSR1 ---- */

TEST_F(signals_test, sigusr1_drops_the_connection_and_discovers_afresh)
{
    connect_agent(false);
    da.discovery_method = DISCOVER_DHCP_15;
    da.dhcp15_allowed = 1;
    da.registered = 1;
    signal_in_the_wait(SIGUSR1);
    EXPECT_TRUE(was_logged("sighandler invoked, signal  10"));
    EXPECT_EQ(da.dhcp15_allowed, 0);
    EXPECT_EQ(da.discovery_method, -1);
    EXPECT_EQ(da.state, DA_STATE_IDLE);
    EXPECT_EQ(da.registered, 0);
    EXPECT_EQ(ws.wsi, nullptr);
    EXPECT_EQ(library.kills, 1);
    EXPECT_NE(seconds_until([] { return neighbours.discoveries == 1; }), -1);
}

TEST_F(signals_test, sigusr1_while_connecting_gives_the_attempt_up)
{
    begin_connecting();
    signal_in_the_wait(SIGUSR1);
    EXPECT_EQ(da.state, DA_STATE_IDLE);
    EXPECT_EQ(library.kills, 1);
    EXPECT_EQ(connect_timer.handle, nullptr);
}

/* Setting the clock runs a child; its wait lets the signal in. */
TEST_F(signals_test, an_acceptance_that_sigusr1_overtakes_counts_for_nothing)
{
    write_file("/tmp/tools/date", "#!/bin/sh\nkill -USR1 " + std::to_string(getpid()) + "\n");
    ASSERT_EQ(chmod("/tmp/tools/date", 0755), 0);
    std::string path = getenv("PATH");
    setenv("PATH", ("/tmp/tools:" + path).c_str(), 1);
    connect_agent();
    in_library([] { fake_receive(fake_handle(), "{\"msgType\":400,\"orvTime\":1700000000}"); });
    setenv("PATH", path.c_str(), 1);
    EXPECT_TRUE(was_logged("sighandler invoked, signal  10"));
    EXPECT_EQ(da.state, DA_STATE_IDLE);
    EXPECT_EQ(da.registered, 0);
    EXPECT_EQ(orv_state_action_pending, 0);
    EXPECT_EQ(file_text(ORV_STATE_FILE), "Connecting");
}

/* ---- SIGTERM ---- */

TEST_F(signals_death_test, sigterm_says_goodbye_and_exits_with_0)
{
    connect_agent(false);
    library.echoes = true;
    EXPECT_EXIT(signal_in_the_wait(SIGTERM), testing::ExitedWithCode(0), "wire 4:DEV_CFG_UPDATE");
    EXPECT_TRUE(was_logged("sighandler invoked, signal  15"));
    EXPECT_TRUE(was_logged("send_close_frame_to_orvanta: Sent CLOSE frame n=16"));
    std::string saved = file_text(LAST_CLOSE_REASON_FILE);
    EXPECT_EQ(saved.substr(saved.find(':') + 1), "DEV_CFG_UPDATE");
}

TEST_F(signals_death_test, sigterm_without_a_connection_exits_with_0)
{
    EXPECT_EXIT(signal_in_the_wait(SIGTERM), testing::ExitedWithCode(0), "");
    EXPECT_TRUE(was_logged("send_close_frame_to_orvanta: wsi is NULL, cannot send close frame"));
    EXPECT_FALSE(path_exists(LAST_CLOSE_REASON_FILE));
}

/* A second signal strikes on the way out, where the C library runs the exit handlers. */
static void leave_under_fire(void)
{
    std::atexit([] {
        sigset_t none;
        sigemptyset(&none);
        raise(SIGUSR1);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        fprintf(stderr, "state %d\n", da.state);
    });
    da.state = DA_STATE_CONNECTED;
    signal_in_the_wait(SIGTERM);
}

TEST_F(signals_death_test, what_comes_while_the_agent_leaves_is_too_late)
{
    EXPECT_EXIT(leave_under_fire(), testing::ExitedWithCode(0), "state 3");
    EXPECT_FALSE(was_logged("sighandler invoked, signal  10"));
}
