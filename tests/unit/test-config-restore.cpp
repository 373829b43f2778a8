#include "operations/config-restore.h"

#include <filesystem>

#include "tests/unit/config-test.h"

static bool flag_exists(void) { return path_exists(DEVICE_RECONFIGURED_FILE); }
static bool shut_down(void) { return !recorded("shutdown.sh").empty(); }

class config_restore : public config_test {
protected:
    void SetUp() override
    {
        config_test::SetUp();
        platform_mark_device_reconfigured();
    }
};

/* The library reports that the connection is gone. */
static void lose_connection(void) { da_enter_state(DA_STATE_DISCONNECTED); }

/* ---- the flag file ---- */

TEST_F(config_restore, the_flag_file_is_empty_and_made_anew)
{
    write_file(DEVICE_RECONFIGURED_FILE, "text");
    EXPECT_EQ(platform_device_reconfigured(), 0);
    platform_mark_device_reconfigured();
    EXPECT_EQ(file_text(DEVICE_RECONFIGURED_FILE), "");
    (void)unlink(DEVICE_RECONFIGURED_FILE);
    EXPECT_EQ(platform_device_reconfigured(), -1);
    platform_mark_device_reconfigured();
    EXPECT_EQ(platform_device_reconfigured(), 0);
}

TEST_F(config_restore, a_flag_file_that_cannot_be_made_is_logged)
{
    (void)unlink(DEVICE_RECONFIGURED_FILE);
    std::filesystem::create_directories(DEVICE_RECONFIGURED_FILE "/folder");
    platform_mark_device_reconfigured();
    EXPECT_TRUE(was_logged("Failed to create " DEVICE_RECONFIGURED_FILE));
}

/* ---- the restore ---- */

TEST_F(config_restore, the_backup_is_copied_back_and_the_device_reboots)
{
    lose_connection();
    int fired =
        seconds_until([] { return was_logged("Rebooting device in 10 seconds, to restore good config"); });
    EXPECT_TRUE(fired >= 600 && fired <= 605) << fired;
    EXPECT_TRUE(was_logged("cfg_restore_timer_cb: Reverting to last known good configuration"));
    EXPECT_EQ(tools.ran, texts{copied_back});
    EXPECT_EQ(file_text(CONFIG_FILE), OLDER_BACKUP);
    EXPECT_EQ(file_text(CONFIG_BACKUP_FILE), OLDER_BACKUP);
    EXPECT_FALSE(flag_exists());
    int waited = seconds_until(shut_down);
    EXPECT_TRUE(waited >= 15 && waited <= 20) << waited;
    EXPECT_EQ(recorded("shutdown.sh"), texts{"SRV_CFG_UPD"});
}

TEST_F(config_restore, the_flag_goes_only_when_the_copy_is_in_place)
{
    tools.instead = [](const std::vector<std::string> &words) {
        EXPECT_TRUE(flag_exists()) << words[0];
        return int{RUN_IT_REALLY};
    };
    platform_restore_cfg();
    EXPECT_FALSE(flag_exists());
    EXPECT_EQ(file_text(CONFIG_FILE), OLDER_BACKUP);
}

TEST_F(config_restore, a_device_that_does_not_go_down_is_asked_every_minute)
{
    static int asked;
    asked = 0;
    tools.instead = [](const std::vector<std::string> &words) {
        bool shutdown = words[0] == "/usr/bin/scripts/shutdown.sh";
        asked += shutdown ? 1 : 0;
        return shutdown && asked < 3 ? 256 : int{RUN_IT_REALLY};
    };
    platform_restore_cfg();
    EXPECT_NE(seconds_until([] { return asked == 1; }), -1);
    int waited = seconds_until([] { return asked == 2; });
    EXPECT_TRUE(waited >= 59 && waited <= 63) << waited;
    EXPECT_NE(seconds_until([] { return asked == 3; }), -1);
    EXPECT_EQ(recorded("shutdown.sh"), texts{"SRV_CFG_UPD"});
    EXPECT_FALSE(config_reboot_pending());
    EXPECT_TRUE(was_logged("config_reboot_timer_cb: The device does not reboot, trying again in 60 seconds"));
}

TEST_F(config_restore, a_signal_during_the_copy_arms_no_second_restore)
{
    lose_connection();
    tools.instead = [](const std::vector<std::string> &words) {
        if (words[0] == "/bin/cp")
            da_enter_state(DA_STATE_DISCONNECTED);
        return int{RUN_IT_REALLY};
    };
    int restores = 0;
    EXPECT_NE(seconds_until([] { return !tools.ran.empty(); }), -1);
    for (const std::string &line : logged())
        restores += line.find("Starting cfg_restore_timer") != std::string::npos ? 1 : 0;
    EXPECT_FALSE(flag_exists());
    run_seconds(700);
    EXPECT_EQ(times_logged_beginning("cfg_restore_timer_cb: Reverting"), 1) << restores << " armed";
}

TEST_F(config_restore, after_a_failed_copy_the_next_outage_tries_again)
{
    tools.instead = [](const std::vector<std::string> &words) {
        return words[0] == "/bin/cp" ? 0x100 : int{RUN_IT_REALLY};
    };
    platform_restore_cfg();
    EXPECT_EQ(file_text(CONFIG_FILE), OLD_CONFIG);
    EXPECT_TRUE(flag_exists());
    EXPECT_TRUE(was_logged_beginning("copy_config: Failed to copy " CONFIG_BACKUP_FILE " to " CONFIG_FILE));
    EXPECT_NE(seconds_until(shut_down), -1);
    tools.instead = nullptr;
    lose_connection();
    EXPECT_NE(seconds_until([] { return file_text(CONFIG_FILE) == OLDER_BACKUP; }), -1);
    EXPECT_FALSE(flag_exists());
}

TEST_F(config_restore, without_a_backup_it_reboots_once)
{
    (void)unlink(CONFIG_BACKUP_FILE);
    platform_restore_cfg();
    EXPECT_TRUE(was_logged("restore_config_backup: No backup of the configuration to restore"));
    EXPECT_EQ(file_text(CONFIG_FILE), OLD_CONFIG);
    EXPECT_EQ(tools.ran, texts{});
    EXPECT_FALSE(flag_exists()) << "or it would reboot every eleven minutes and mend nothing";
    EXPECT_NE(seconds_until(shut_down), -1);
}

/* ---- two outages, one timer ---- */

TEST_F(config_restore, two_outages_have_one_timer)
{
    lose_connection();
    EXPECT_EQ(times_logged_beginning("Starting cfg_restore_timer"), 1);
    EXPECT_TRUE(was_logged("cfg_restore_timer not running"));
    int timers = ev_count_timers();
    fake_clock_advance(300);
    lose_connection();
    EXPECT_EQ(times_logged_beginning("Starting cfg_restore_timer"), 1);
    EXPECT_TRUE(was_logged("cfg_restore_timer  running"));
    EXPECT_EQ(ev_count_timers(), timers);
    int fired = seconds_until([] { return file_text(CONFIG_FILE) == OLDER_BACKUP; });
    EXPECT_TRUE(fired >= 299 && fired <= 305) << "counted from the first outage: " << fired;
}

TEST_F(config_restore, an_agent_that_was_not_reconfigured_restores_nothing)
{
    (void)unlink(DEVICE_RECONFIGURED_FILE);
    lose_connection();
    EXPECT_EQ(times_logged_beginning("Starting cfg_restore_timer"), 0);
    run_seconds(700);
    EXPECT_EQ(file_text(CONFIG_FILE), OLD_CONFIG);
}

/* ---- the ways to disarm it ---- */

TEST_F(config_restore, an_established_connection_disarms_it)
{
    lose_connection();
    clear_log();
    connect_agent();
    EXPECT_FALSE(flag_exists());
    EXPECT_TRUE(was_logged("Got connected 'back' after CFG_UPDATE, deleting the cfg_restore_timer"));
    da.state = DA_STATE_CONNECTED;
    run_seconds(60);
    EXPECT_EQ(file_text(CONFIG_FILE), OLD_CONFIG);
}

TEST_F(config_restore, an_acceptance_disarms_it)
{
    start_cfg_restore_timer();
    clear_log();
    char message[] = "{\"msgType\": 400}";
    hooks.handle_orv_msg(message, sizeof(message) - 1, nullptr);
    EXPECT_TRUE(was_logged("Got connected 'back' after CFG_UPDATE, deleting the cfg_restore_timer"));
    clear_log();
    stop_cfg_restore_timer();
    EXPECT_FALSE(was_logged_beginning("Got connected")) << "it was stopped";
}

TEST_F(config_restore, a_pong_after_an_update_in_place_disarms_it)
{
    reconfig_pending = 1;
    pong_received();
    EXPECT_EQ(reconfig_pending, 0);
    EXPECT_TRUE(was_logged("Connection alive after partial reconfig"));
    EXPECT_FALSE(flag_exists());
    lose_connection();
    EXPECT_EQ(times_logged_beginning("Starting cfg_restore_timer"), 0);
}

TEST_F(config_restore, a_pong_without_one_does_nothing)
{
    pong_received();
    EXPECT_FALSE(was_logged("Connection alive after partial reconfig"));
    EXPECT_TRUE(flag_exists());
}

/* ---- the reboot ---- */

TEST_F(config_restore, a_second_request_moves_the_reboot_until_the_connection_is_closed)
{
    int timers = ev_count_timers();
    start_config_reboot(CONFIG_UNPROVEN);
    fake_clock_advance(8);
    start_config_reboot(CONFIG_UNPROVEN);
    EXPECT_EQ(ev_count_timers(), timers + 1);
    int closed = seconds_until([] { return close_reason_on_wire() == "DEV_REBOOT"; });
    EXPECT_TRUE(closed >= 10 && closed <= 12) << closed;
    start_config_reboot(CONFIG_UNPROVEN);
    int waited = seconds_until(shut_down);
    EXPECT_TRUE(waited >= 4 && waited <= 7) << waited;
    run_seconds(60);
    EXPECT_EQ(recorded("shutdown.sh"), texts{"SRV_CFG_UPD"}) << "once";
    EXPECT_GE(idle_timeout, 60);
}

TEST_F(config_restore, a_later_reboot_has_both_stages_again)
{
    start_config_reboot(CONFIG_UNPROVEN);
    EXPECT_NE(seconds_until(shut_down), -1);
    clear_recorded("shutdown.sh");
    start_config_reboot(CONFIG_UNPROVEN);
    int waited = seconds_until(shut_down);
    EXPECT_TRUE(waited >= 15 && waited <= 20) << waited;
}
