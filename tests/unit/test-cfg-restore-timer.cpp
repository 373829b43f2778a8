#include "agent/cfg-restore-timer.h"

#include <unistd.h>

#include "tests/unit/connection-test.h"

static int restores;

class cfg_restore_test : public connection_test {
protected:
    void SetUp() override
    {
        connection_test::SetUp();
        restores = 0;
        hooks.platform_restore_cfg = [] { restores++; };
    }
};

TEST_F(cfg_restore_test, the_configuration_is_restored_after_ten_minutes)
{
    start_cfg_restore_timer();
    EXPECT_TRUE(was_logged("cfg_restore_timer not running"));
    EXPECT_TRUE(was_logged("Starting cfg_restore_timer"));
    int took = seconds_until([] { return restores == 1; });
    EXPECT_GE(took, 600);
    EXPECT_LE(took, 602);
    EXPECT_TRUE(was_logged("cfg_restore_timer_cb: Reverting to last known good configuration"));
    run_seconds(2000);
    EXPECT_EQ(restores, 1);
}

TEST_F(cfg_restore_test, starting_it_again_does_not_move_it)
{
    start_cfg_restore_timer();
    fake_clock_advance(500);
    clear_log();
    start_cfg_restore_timer();
    EXPECT_TRUE(was_logged("cfg_restore_timer  running"));
    EXPECT_FALSE(was_logged("Starting cfg_restore_timer"));
    EXPECT_EQ(ev_count_timers(), 1);
    int took = seconds_until([] { return restores == 1; });
    EXPECT_GE(took, 100);
    EXPECT_LE(took, 102);
}

TEST_F(cfg_restore_test, after_it_fired_it_can_be_started_again)
{
    start_cfg_restore_timer();
    EXPECT_NE(seconds_until([] { return restores == 1; }), -1);
    clear_log();
    start_cfg_restore_timer();
    EXPECT_TRUE(was_logged("cfg_restore_timer not running"));
    EXPECT_NE(seconds_until([] { return restores == 2; }), -1);
}

TEST_F(cfg_restore_test, stopping_it_is_told_once)
{
    start_cfg_restore_timer();
    stop_cfg_restore_timer();
    EXPECT_TRUE(was_logged("Got connected 'back' after CFG_UPDATE, deleting the cfg_restore_timer"));
    EXPECT_EQ(ev_count_timers(), 0);
    clear_log();
    stop_cfg_restore_timer();
    EXPECT_EQ(logged().size(), 0u);
}

TEST_F(cfg_restore_test, idle_starts_it_on_a_reconfigured_device_only)
{
    da_enter_state(DA_STATE_IDLE);
    EXPECT_FALSE(was_logged("Starting cfg_restore_timer"));
    write_file(DEVICE_RECONFIGURED_FILE, "");
    da_enter_state(DA_STATE_IDLE);
    EXPECT_TRUE(was_logged("Starting cfg_restore_timer"));
    clear_log();
    da_enter_state(DA_STATE_IDLE);
    EXPECT_TRUE(was_logged("cfg_restore_timer  running"));
    EXPECT_EQ(ev_count_timers(), 2);
    (void)unlink(DEVICE_RECONFIGURED_FILE);
}

TEST_F(cfg_restore_test, connecting_again_stops_it)
{
    start_cfg_restore_timer();
    connect_agent(false);
    EXPECT_TRUE(was_logged("Got connected 'back' after CFG_UPDATE, deleting the cfg_restore_timer"));
    timer_disarm(ping_timer);
    run_seconds(700);
    EXPECT_EQ(restores, 0);
}

TEST_F(cfg_restore_test, a_device_that_does_not_come_back_is_rolled_back)
{
    write_file(DEVICE_RECONFIGURED_FILE, "");
    library.refuses_connection = true;
    da_enter_state(DA_STATE_IDLE);
    int took = seconds_until([] { return restores == 1; });
    EXPECT_GE(took, 600) << "reconnects do not start it anew";
    EXPECT_LE(took, 625);
    (void)unlink(DEVICE_RECONFIGURED_FILE);
}
