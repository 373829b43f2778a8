#include "operations/wifiperf.h"

#include <new>

#include "tests/unit/exec-test.h"
#include "tests/unit/fake-clock.h"
#include "tests/unit/fake-scm.h"

static bool no_memory;

/* What the loop makes its timers with. */
void *operator new(size_t size, const std::nothrow_t &) noexcept
{
    return no_memory ? nullptr : ::operator new(size);
}

class wifiperf : public exec_test {
protected:
    void SetUp() override
    {
        fake_clock_set(1000);
        scm = fake_scm();
        scm.reply = "{\"status\":\"ok\"}";
        exec_test::SetUp();
    }
    void TearDown() override
    {
        exec_test::TearDown();
        fake_clock_set(1000);
    }
    /* The seconds until it is off. */
    static int64_t seconds_on(void)
    {
        int64_t before = fake_clock_now();
        EXPECT_TRUE(run_until([] { return wifiperf_running == 0; }, 2000));
        return (fake_clock_now() - before) / 1000000;
    }
};

static const texts switched_on = {"set zapd_start_stop=true", "send CONFIG-APPLY"};
static const texts switched_off = {"set zapd_start_stop=false", "send CONFIG-APPLY"};

TEST_F(wifiperf, it_is_on_for_fifteen_minutes)
{
    EXPECT_EQ(start_wifiperf(), 0);
    EXPECT_EQ(scm.calls, switched_on);
    EXPECT_EQ(wifiperf_running, 1);
    EXPECT_TRUE(was_logged("starting wifiperf speed test Daemon"));
    EXPECT_TRUE(was_logged("wifiperf Daemon timer started"));
    EXPECT_STREQ(static_cast<const char *>(ev_timer_argument(0)), "COMMAND COMPLETE");
    scm.calls.clear();
    int64_t seconds = seconds_on();
    EXPECT_GE(seconds, 900);
    EXPECT_LE(seconds, 902);
    EXPECT_EQ(scm.calls, switched_off);
    EXPECT_TRUE(was_logged("wifiperf Endpoint Timeout"));
    EXPECT_TRUE(was_logged("Stopping wifiperf end point"));
    EXPECT_EQ(ev_count_timers(), 0);
}

TEST_F(wifiperf, another_start_lets_it_be_on_for_the_whole_time_again)
{
    EXPECT_EQ(start_wifiperf(), 0);
    fake_clock_set(1800);
    EXPECT_EQ(start_wifiperf(), 0);
    EXPECT_EQ(scm.calls, switched_on) << "it was on";
    EXPECT_TRUE(was_logged("refreshing the  wifiperf speed test Daemon timer"));
    EXPECT_EQ(ev_count_timers(), 1);
    EXPECT_GE(seconds_on(), 900);
}

TEST_F(wifiperf, a_start_that_fails)
{
    scm.set_result = -1;
    EXPECT_EQ(start_wifiperf(), -1);
    EXPECT_TRUE(was_logged("Error setting wifiperf start"));
    EXPECT_EQ(scm.calls, texts{"set zapd_start_stop=true"});
    scm.set_result = 0;
    scm.reply.clear();
    EXPECT_EQ(start_wifiperf(), -1);
    EXPECT_TRUE(was_logged("Error applying wifiperf start"));
    EXPECT_EQ(wifiperf_running, 0);
    EXPECT_EQ(ev_count_timers(), 0);
}

TEST_F(wifiperf, a_stop_that_fails_leaves_it_on)
{
    EXPECT_EQ(start_wifiperf(), 0);
    scm.set_result = -1;
    EXPECT_EQ(stop_wifiperf(), -1);
    EXPECT_TRUE(was_logged("Error setting wifiperf stop"));
    scm.set_result = 0;
    scm.reply.clear();
    EXPECT_FALSE(run_until([] { return wifiperf_running == 0; }, 1000));
    EXPECT_TRUE(was_logged("Error applying wifiperf stop"));
    EXPECT_TRUE(was_logged("Error in terminating wifiperf"));
    EXPECT_EQ(wifiperf_running, 1);
    scm.reply = "{}";
    stop_running_wifiperf();
    EXPECT_EQ(wifiperf_running, 0);
}

TEST_F(wifiperf, a_configuration_update_ends_it_only_where_it_is_on)
{
    stop_running_wifiperf();
    EXPECT_EQ(scm.calls, texts{});
    EXPECT_FALSE(was_logged("Stopping wifiperf end point"));
    EXPECT_EQ(stop_wifiperf(), 0);
    EXPECT_EQ(scm.calls, texts{});
    EXPECT_TRUE(was_logged("Stopping wifiperf end point"));
    EXPECT_EQ(start_wifiperf(), 0);
    scm.calls.clear();
    stop_running_wifiperf();
    EXPECT_EQ(scm.calls, switched_off);
    EXPECT_EQ(wifiperf_running, 0);
}

TEST_F(wifiperf, without_memory_for_its_timer_it_is_on_all_the_same)
{
    no_memory = true;
    int result = start_wifiperf();
    no_memory = false;
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(was_logged("wifiperf  timer could not started"));
    EXPECT_FALSE(was_logged("wifiperf Daemon timer started"));
}

TEST_F(wifiperf, by_request)
{
    EXPECT_EQ(parse("{\"command\": \"wifiperf\"}"), NO_ERROR);
    char *name = nullptr;
    EXPECT_EQ(start_exec_cmd(nullptr, TS_FOR_CONTROLLER, &name), EXEC_STATUS);
    EXPECT_STREQ(malloc_text(name).get(), "wifiperf");
    EXPECT_EQ(exec_running, 0) << "other commands may run beside it";
    name = nullptr;
    EXPECT_EQ(abort_exec_cmd(json("{\"command\": \"wifiperf\"}").get(), &name), EXEC_STATUS);
    EXPECT_STREQ(malloc_text(name).get(), "wifiperf");
    EXPECT_TRUE(was_logged("Command:abort_exec_cmd: going to be stopped wifiperf"));
    EXPECT_EQ(wifiperf_running, 1) << "it has its own time";
    EXPECT_EQ(txq, nullptr);
    scm.set_result = -1;
    wifiperf_reset();
    EXPECT_EQ(start_exec_cmd(nullptr, TS_FOR_CONTROLLER, &name), EXEC_FAILED);
    EXPECT_STREQ(malloc_text(name).get(), "wifiperf");
    EXPECT_EQ(start_exec_cmd(nullptr, TS_FOR_FRONT_END, nullptr), EXEC_FAILED) << "no name is wanted";
}
