#include "agent/named-timer.h"

#include <string>

#include <gtest/gtest.h>

#include "tests/unit/fake-clock.h"

static void tick_cb(void *name);
static named_timer tick = {"TICK", tick_cb, nullptr};

static int ticks;
static std::string told_name;
static bool goes_on;

static void tick_cb(void *name)
{
    timer_fired(tick);
    ticks++;
    told_name = static_cast<const char *>(name);
    if (goes_on)
        timer_arm(tick, 60);
}

class named_timer_test : public testing::Test {
protected:
    void SetUp() override
    {
        timer_disarm(tick);
        fake_clock_set(1000);
        ticks = 0;
        goes_on = false;
    }
    void TearDown() override { timer_disarm(tick); }
};

TEST_F(named_timer_test, fires_once_with_its_name)
{
    timer_arm(tick, 5);
    EXPECT_NE(tick.handle, nullptr);
    run_seconds(20);
    EXPECT_EQ(ticks, 1);
    EXPECT_EQ(told_name, "TICK");
    EXPECT_EQ(tick.handle, nullptr);
}

TEST_F(named_timer_test, arming_again_moves_it)
{
    timer_arm(tick, 5);
    timer_arm(tick, 100);
    EXPECT_EQ(ev_count_timers(), 1);
    run_seconds(50);
    EXPECT_EQ(ticks, 1) << "the one sleep of the loop went up to the second time";
    EXPECT_GE(fake_clock_now(), 1100 * 1000000LL);
}

TEST_F(named_timer_test, disarmed_it_does_not_fire_and_twice_is_harmless)
{
    timer_arm(tick, 5);
    timer_disarm(tick);
    EXPECT_EQ(tick.handle, nullptr);
    timer_disarm(tick);
    run_seconds(20);
    EXPECT_EQ(ticks, 0);
    EXPECT_EQ(ev_count_timers(), 0);
}

TEST_F(named_timer_test, a_callback_that_arms_itself_makes_it_periodic)
{
    goes_on = true;
    timer_arm(tick, 60);
    run_seconds(300);
    EXPECT_EQ(ticks, 5);
    EXPECT_EQ(ev_count_timers(), 1);
}

TEST_F(named_timer_test, one_that_fired_may_be_disarmed_although_its_memory_is_another_timer_now)
{
    timer_arm(tick, 1);
    run_seconds(5);
    EXPECT_EQ(ticks, 1);
    ev_timer *other = ev_add_timer([](void *) {}, nullptr, 10, 0);
    timer_disarm(tick);
    EXPECT_EQ(ev_count_timers(), 1);
    ev_del_timer(other);
}
