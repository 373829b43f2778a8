#include "operations/firmware-flash.h"

#include <cerrno>

#include <signal.h>

#include "agent/run.h"
#include "agent/signal-mask.h"
#include "agent/signals.h"
#include "tests/unit/upgrade-test.h"

using flash_test = upgrade_test;

/* ---- what the script's end means ---- */

TEST_F(flash_test, the_script_gets_the_image)
{
    flash();
    EXPECT_EQ(recorded("upgrade.sh"), std::vector<std::string>{"/tmp/firmware"});
    EXPECT_TRUE(was_logged("Firmware download complete"));
    EXPECT_TRUE(was_logged("platform_do_upgrade: /tmp/firmware"));
    EXPECT_TRUE(was_logged("Fire upgrade script: [/usr/bin/scripts/upgrade.sh /tmp/firmware]"));
}

TEST_F(flash_test, every_status_but_0_is_a_failure_of_the_table)
{
    std::vector<int> statuses = {16, 126, 127, 200, 255};
    for (int status = 1; status <= 15; status++)
        statuses.push_back(status);
    for (int status : statuses) {
        write_file(SCRIPT_STATUS, std::to_string(status));
        texts told = flash();
        ASSERT_EQ(told.size(), 2u) << status;
        EXPECT_EQ(told[0], FLASHING);
        const upgrade_result &row = find_upgrade_result(status);
        EXPECT_EQ(told[1], upgrade_failure(row.state, row.message));
        EXPECT_TRUE(was_logged("Sw Update Failed exit_status=" + std::to_string(status)));
        EXPECT_FALSE(path_exists(UPGRADE_PROGRESS_FILE));
        EXPECT_EQ(upgrade_in_progress, 0);
    }
    EXPECT_EQ(upgrade_failure("GenericError", "Generic Error"),
              "{\"msgType\": 701, \"code\": \"GenericError\", \"message\": \"Generic Error\"}");
}

TEST_F(flash_test, a_script_that_a_signal_ends_has_not_succeeded)
{
    for (const char *lines : {"kill -9 $$", "kill -15 $$", "kill -9 $PPID", "kill -11 $$"}) {
        install_program(SCRIPT, lines);
        texts told = flash();
        ASSERT_EQ(told.size(), 2u);
        EXPECT_EQ(told[1], upgrade_failure("UnknownError", "Software update failed due to unknown reason"))
            << lines;
        EXPECT_GT(logged_number("Sw Update Failed exit_status="), 128)
            << "whether the shell tells it or is hit";
    }
}

TEST_F(flash_test, a_script_that_cannot_be_run_has_not_succeeded)
{
    std::string unknown = upgrade_failure("UnknownError", "Software update failed due to unknown reason");
    std::filesystem::remove(SCRIPT);
    EXPECT_EQ(flash().back(), unknown);
    write_file(SCRIPT, "#!/bin/sh\n");
    chmod(SCRIPT, 0644);
    EXPECT_EQ(flash().back(), unknown);
    install_program(SCRIPT, "exit 0");
    write_file(SCRIPT, "#!/no/such/shell\n");
    EXPECT_EQ(flash().back(), unknown);
}

/* ---- while it runs ---- */

static std::vector<std::string> seen;

static void look_around(void)
{
    seen.push_back(library.wire.empty() ? "" : library.wire.back().payload);
    seen.push_back(file_text(UPGRADE_PROGRESS_FILE));
    seen.push_back(std::to_string(https_download_status) + std::to_string(upgrade_in_progress) +
                   (orv_upd_timer ? "armed" : "quiet"));
}

TEST_F(flash_test, the_stage_is_on_the_wire_before_the_script_runs)
{
    seen.clear();
    hooks.beat = look_around;
    install_program(SCRIPT, "sleep 0.2");
    flash();
    ASSERT_GE(seen.size(), 3u) << "the heartbeat goes on";
    EXPECT_EQ(seen[0], FLASHING);
    EXPECT_EQ(seen[1], "Firmware file ready, now updating device");
    EXPECT_EQ(seen[2], "01quiet");
}

TEST_F(flash_test, an_upgrade_of_minutes_costs_no_connection)
{
    hooks.beat = [] { fake_clock_advance(300); };
    install_program(SCRIPT, "sleep 0.2");
    begin_upgrade();
    ws.pong_received = 1;
    start_pings();
    run_seconds(32);
    ASSERT_EQ(ws.pong_received, 0) << "a ping is on its way";
    report("{\"msgType\":401}");
    /* Its pong has come while the script ran, and waits behind the overdue ping. */
    EXPECT_TRUE(run_until([] { return upgrade_in_progress == 0; }, 1000));
    in_library([] { fake_report(fake_handle(), LWS_CALLBACK_CLIENT_RECEIVE_PONG); });
    run_seconds(5);
    EXPECT_EQ(da.state, DA_STATE_CONNECTED);
    EXPECT_LE(ws.pong_loss, 1);
    EXPECT_EQ(frames_of_mode(FAKE_CLOSE_FRAME), 0);
    cancel_ping_timer();
}

TEST_F(flash_test, losing_the_connection_meanwhile_does_no_harm)
{
    signals_block();
    platform_init_signal_handler();
    da.auto_reboot = 1;
    std::string agent = std::to_string(getpid());
    install_program(SCRIPT, "kill -USR1 " + agent + "; kill -HUP " + agent + "; sleep 0.1");
    begin_upgrade();
    da.debug_level = LOG_EVENT;
    report("{\"msgType\":401}");
    run_seconds(4);
    EXPECT_EQ(da.debug_level, LOG_TRACE) << "the signals were served";
    EXPECT_NE(da.state, DA_STATE_CONNECTED);
    EXPECT_TRUE(was_logged("Firmware flashing successful"));
    EXPECT_EQ(take_one_told(), FLASHING) << "the rest has nowhere to go";
    EXPECT_FALSE(path_exists(UPGRADE_PROGRESS_FILE));
    run_seconds(20);
    EXPECT_EQ(recorded("shutdown.sh"), std::vector<std::string>{"SRV_SW_UPD"});
    for (int number : {SIGHUP, SIGUSR1, SIGTERM})
        signal(number, SIG_DFL);
}

TEST_F(flash_test, the_agents_end_leaves_the_progress_file_to_a_script_that_runs_on)
{
    begin_upgrade();
    upgrade_flashing = 1;
    platform_write_upgrade_progress("Firmware file ready, now updating device");
    stop_fw_dl_process();
    EXPECT_TRUE(path_exists(UPGRADE_PROGRESS_FILE)) << "nobody may write beside it";
    EXPECT_EQ(upgrade_in_progress, 1);
}

/* ---- behind it ---- */

TEST_F(flash_test, without_auto_reboot_the_operator_reboots)
{
    EXPECT_EQ(flash(), (texts{FLASHING, UPDATED}));
    EXPECT_TRUE(was_logged("Firmware flashing successful"));
    EXPECT_TRUE(was_logged("Manual reboot required to load new firmware, auto_reboot=0"));
    EXPECT_EQ(upgrade_in_progress, 0);
    EXPECT_EQ(platform_get_upgrade_status(), 0);
    EXPECT_FALSE(path_exists(UPGRADE_PROGRESS_FILE));
    run_seconds(100);
    EXPECT_TRUE(recorded("shutdown.sh").empty());
    EXPECT_EQ(flash().size(), 2u) << "and the next upgrade can come";
}

TEST_F(flash_test, with_auto_reboot_it_says_goodbye_and_reboots)
{
    da.auto_reboot = 1;
    begin_upgrade();
    report("{\"msgType\":401}");
    ASSERT_GE(seconds_until([] { return upgrade_in_progress == 0; }), 0);
    int64_t flashed = fake_clock_now();
    EXPECT_EQ(idle_timeout, 300);
    EXPECT_TRUE(was_logged("Rebooting device to load new firmware, auto_reboot=1"));
    drain();
    EXPECT_EQ(take_told(), (texts{FLASHING, UPDATED, REBOOTING}));

    ASSERT_GE(seconds_until([] { return frames_of_mode(FAKE_CLOSE_FRAME) > 0; }), 0);
    int64_t closed = fake_clock_now();
    EXPECT_EQ(close_reason_on_wire(), "DEV_SW_REBOOT");
    EXPECT_GE(closed - flashed, 10 * 1000000);
    EXPECT_LE(closed - flashed, 12 * 1000000);
    EXPECT_NE(file_text(LAST_CLOSE_REASON_FILE).find(":DEV_SW_REBOOT"), std::string::npos);
    EXPECT_TRUE(recorded("shutdown.sh").empty());

    ASSERT_GE(seconds_until([] { return !recorded("shutdown.sh").empty(); }), 0);
    EXPECT_GE(fake_clock_now() - closed, 5 * 1000000);
    EXPECT_LE(fake_clock_now() - closed, 7 * 1000000);
    EXPECT_EQ(recorded("shutdown.sh"), std::vector<std::string>{"SRV_SW_UPD"});
    EXPECT_EQ(idle_timeout, 300) << "no attempt comes in between";
    run_seconds(100);
    EXPECT_EQ(recorded("shutdown.sh").size(), 1u);
}

/* As when the connection was lost while the flash was written. */
TEST_F(flash_test, a_connection_made_before_the_reboot_is_the_last_one)
{
    da.auto_reboot = 1;
    flash();
    da_enter_state(DA_STATE_DISCONNECTED);
    connect_agent();
    cancel_registration();
    ASSERT_LT(idle_timeout, 60) << "a connection wants the next one soon";
    ASSERT_GE(seconds_until([] { return frames_of_mode(FAKE_CLOSE_FRAME) > 0; }), 0);
    in_library([] { fake_closed(fake_handle()); });
    EXPECT_EQ(da.state, DA_STATE_IDLE);
    EXPECT_TRUE(was_logged("Attempting (re)connection in 5 minutes"));
    ASSERT_GE(seconds_until([] { return !recorded("shutdown.sh").empty(); }), 0);
    EXPECT_EQ(da.state, DA_STATE_IDLE) << "no attempt comes in between";
}

TEST_F(flash_test, an_earlier_request_decides_about_the_reboot_where_the_later_does_not)
{
    EXPECT_EQ(controller_sends("{\"msgType\": 101, \"url\": \"http://x\", \"autoReboot\": true}"), 1);
    clear_told();
    EXPECT_EQ(controller_sends("{\"msgType\": 101, \"url\": \"" SOME_URL "\"}"), 0);
    report("{\"msgType\":401}");
    run_seconds(4);
    EXPECT_EQ(take_told(), (texts{INITIATED, FLASHING, UPDATED, REBOOTING}));
}
