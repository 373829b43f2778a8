#include "operations/sw-upgrade.h"

#include <sys/wait.h>

#include "agent/owners.h"
#include "agent/reasons.h"
#include "protocol/register.h"
#include "tests/unit/upgrade-test.h"

/* ---- the request ---- */

static int parse(const std::string &text)
{
    json_ptr request(json_loads(text.c_str(), 0, nullptr));
    return parse_sw_upgrade_request(request.get(), fw_url, error_string);
}

TEST_F(upgrade_test, no_request_is_refused)
{
    EXPECT_EQ(parse_sw_upgrade_request(nullptr, fw_url, error_string), 1);
    EXPECT_STREQ(error_string, "Not able to parse the Software Update request from Orvanta");
    EXPECT_TRUE(was_logged("Not able to parse the Software Update request from Orvanta"));
}

TEST_F(upgrade_test, a_request_needs_a_url)
{
    da.debug_level = LOG_FAILURE;
    for (const char *text : {"{}", "{\"url\": 5}", "{\"url\": null}", "{\"url\": [\"https://x\"]}"}) {
        clear_log();
        EXPECT_EQ(parse(text), 1) << text;
        EXPECT_STREQ(error_string, "Software upgrade url info not found on JSON");
        EXPECT_TRUE(was_logged("Software upgrade url info not found on JSON")) << text;
    }
}

TEST_F(upgrade_test, a_url_is_kept_up_to_2047_bytes)
{
    for (size_t length : {1u, 2047u, 2048u, 5000u}) {
        std::string url(length, 'u');
        EXPECT_EQ(parse("{\"url\": \"" + url + "\"}"), 0);
        EXPECT_EQ(fw_url, url.substr(0, 2047));
    }
}

TEST_F(upgrade_test, only_a_boolean_changes_whether_the_device_reboots_by_itself)
{
    static const struct {
        const char *member;
        int32_t auto_reboot;
    } rows[] = {{"true", 1},  {"1", 1},        {"\"false\"", 1}, {"null", 1},
                {"false", 0}, {"\"true\"", 0}, {"2", 0}};
    for (const auto &row : rows) {
        EXPECT_EQ(parse(std::string("{\"url\": \"x\", \"autoReboot\": ") + row.member + "}"), 0);
        EXPECT_EQ(da.auto_reboot, row.auto_reboot) << row.member;
    }
    EXPECT_EQ(parse("{\"url\": \"x\", \"autoReboot\": true}"), 0);
    EXPECT_EQ(parse("{\"url\": \"x\"}"), 0);
    EXPECT_EQ(da.auto_reboot, 1) << "left out, it stays";
}

/* ---- the beginning ---- */

static int begin(const std::string &url) { return platform_sw_update(url.c_str(), error_string); }

TEST_F(upgrade_test, only_https_is_taken)
{
    for (const char *url : {"http://files.example/fw", "HTTPS://files.example/fw", "Https://x", "", "http",
                            " https://x", "ftp://x"}) {
        clear_log();
        EXPECT_EQ(begin(url), 1) << url;
        EXPECT_STREQ(error_string, "Firmware download over HTTP is not supported");
        EXPECT_TRUE(was_logged("Firmware download over HTTP is not supported"));
        EXPECT_TRUE(was_logged("str_upd_link= [" + std::string(url) + "]"));
    }
    EXPECT_FALSE(path_exists(UPGRADE_PROGRESS_FILE));
    EXPECT_EQ(upgrade_in_progress, 0);
    EXPECT_TRUE(take_told().empty());
}

TEST_F(upgrade_test, five_characters_decide) { EXPECT_EQ(begin("httpsquare"), 0); }

TEST_F(upgrade_test, a_progress_file_of_anybody_refuses_every_request_until_it_goes)
{
    write_file(UPGRADE_PROGRESS_FILE, "");
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(begin(SOME_URL), 3);
        EXPECT_STREQ(error_string, "Another upgrade in progress, please try after some time");
        EXPECT_TRUE(was_logged("Another upgrade in progress, please try after some time"));
    }
    stop_fw_dl_process();
    EXPECT_EQ(begin("http://x"), 3) << "a registration does not take it away, and it comes first";
    std::filesystem::remove(UPGRADE_PROGRESS_FILE);
    EXPECT_EQ(begin(SOME_URL), 0);
}

TEST_F(upgrade_test, it_begins_with_a_download)
{
    EXPECT_EQ(begin(SOME_URL), 0);
    EXPECT_EQ(take_one_told(), INITIATED);
    EXPECT_EQ(file_text(UPGRADE_PROGRESS_FILE), "Upgrade initiated");
    EXPECT_EQ(https_download_status, DOWNLOAD_RUNNING);
    EXPECT_EQ(upgrade_in_progress, 1);
    EXPECT_EQ(platform_get_upgrade_status(), 1);
    EXPECT_TRUE(was_logged("platform_get_upgrade_status: An upgrade_in_progress 1 https_download_status 1"));
    EXPECT_TRUE(was_logged("str_upd_link= [" SOME_URL "]"));
    EXPECT_NE(orv_upd_timer, nullptr);
}

TEST_F(upgrade_test, the_progress_file_is_never_written_through_a_link)
{
    write_file("/tmp/precious", "mine");
    std::filesystem::create_symlink("/tmp/nowhere", UPGRADE_PROGRESS_FILE);
    EXPECT_EQ(begin(SOME_URL), 0) << "there is no such file";
    EXPECT_FALSE(path_exists("/tmp/nowhere"));
    EXPECT_FALSE(std::filesystem::is_symlink(UPGRADE_PROGRESS_FILE));
    std::filesystem::remove(UPGRADE_PROGRESS_FILE);
    std::filesystem::create_symlink("/tmp/precious", UPGRADE_PROGRESS_FILE);
    platform_write_upgrade_progress("over");
    EXPECT_EQ(file_text("/tmp/precious"), "mine");
    EXPECT_EQ(file_text(UPGRADE_PROGRESS_FILE), "over");
}

TEST_F(upgrade_test, a_progress_file_that_cannot_be_written_is_no_failure)
{
    begin_upgrade();
    std::filesystem::remove(UPGRADE_PROGRESS_FILE);
    std::filesystem::create_directories(UPGRADE_PROGRESS_FILE "/occupied");
    platform_write_upgrade_progress("over");
    EXPECT_TRUE(std::filesystem::is_directory(UPGRADE_PROGRESS_FILE));
    std::filesystem::remove_all(UPGRADE_PROGRESS_FILE);
}

TEST_F(upgrade_test, of_two_requests_the_second_is_refused)
{
    EXPECT_EQ(controller_sends("{\"msgType\": 101, \"url\": \"" SOME_URL "\"}"), 0);
    EXPECT_EQ(controller_sends("{\"msgType\": 101, \"url\": \"https://other.example\"}"), 3);
    texts told = take_told();
    ASSERT_EQ(told.size(), 2u);
    EXPECT_EQ(told[0], INITIATED);
    EXPECT_EQ(told[1], upgrade_failure("FwUpdateInProgress",
                                       "Another upgrade in progress, please try after some time"));
    EXPECT_TRUE(was_logged("handle_orv_msg: MSG_SW_UPGRADE_REQUEST received"));
    EXPECT_EQ(file_text(ORV_STATE_FILE), "Connected to " + std::string(g_orv_router));

    da.auto_reboot = 0;
    controller_sends("{\"msgType\":101,\"url\":\"" SOME_URL "\",\"autoReboot\":true}");
    EXPECT_EQ(da.auto_reboot, 1) << "its wish to reboot counts all the same";
}

TEST_F(upgrade_test, refusals_are_answered_with_701)
{
    EXPECT_EQ(controller_sends("{\"msgType\": 101}"), 1);
    EXPECT_EQ(take_one_told(), upgrade_failure("BadRequest", "Software upgrade url info not found on JSON"));
    EXPECT_EQ(controller_sends("{\"msgType\": 101, \"url\": \"http://x\"}"), 1);
    EXPECT_EQ(take_one_told(), upgrade_failure("BadRequest", "Firmware download over HTTP is not supported"));
}

/* ---- while the download runs ---- */

TEST_F(upgrade_test, the_download_is_looked_at_every_two_seconds)
{
    begin_upgrade();
    da.debug_level = LOG_TRACE;
    run_seconds(60);
    int looks = times_logged_beginning("Firmware download in progress");
    EXPECT_GE(looks, 60 / 4);
    EXPECT_LE(looks, 60 / 2 + 1);
}

TEST_F(upgrade_test, the_controller_hears_every_180_seconds_that_it_goes_on)
{
    begin_upgrade();
    int64_t before = fake_clock_now();
    for (int i = 1; i <= 5; i++) {
        ASSERT_GE(seconds_until([] { return !library.wire.empty(); }), 0);
        EXPECT_EQ(take_one_told(), ONGOING);
        int64_t passed = (fake_clock_now() - before) / 1000000;
        EXPECT_GE(passed, 180 * i);
        EXPECT_LE(passed, 182 * i + 1);
    }
    EXPECT_EQ(times_logged_beginning("Firmware upgrade in progress"), 5);
}

TEST_F(upgrade_test, it_goes_on_being_told_when_the_program_died_without_a_word)
{
    install_program(PROGRAMS "fw_dl", "exit 0");
    ASSERT_EQ(begin(SOME_URL), 0);
    siginfo_t ended;
    ASSERT_EQ(waitid(P_ALL, 0, &ended, WEXITED | WNOWAIT),
              0); /* the clock of the test does not wait for it */
    clear_told();
    ASSERT_GE(seconds_until([] { return !library.wire.empty(); }), 180);
    EXPECT_EQ(take_one_told(), ONGOING);
    EXPECT_TRUE(was_logged("fw_dl process exited."));
    EXPECT_EQ(https_download_status, DOWNLOAD_RUNNING);
    stop_fw_dl_process();
    run_seconds(400);
    EXPECT_TRUE(take_told().empty()) << "until a registration stops it";
}

TEST_F(upgrade_test, without_an_upgrade_nothing_is_told)
{
    check_upgrade_complete_cb(nullptr);
    EXPECT_TRUE(take_told().empty());
    EXPECT_EQ(orv_upd_timer, nullptr);
    check_dl_complete_cb(nullptr);
    EXPECT_TRUE(was_logged("Firmware upgrade not initated or stopped"));
}

/* ---- its ends ---- */

TEST_F(upgrade_test, a_failed_download_is_told_and_frees_the_place)
{
    begin_upgrade();
    report("{\"msgType\":701,\"code\":\"x\"}");
    run_seconds(4);
    EXPECT_EQ(take_one_told(), NOT_DOWNLOADED);
    EXPECT_TRUE(was_logged("Firmware download failed"));
    EXPECT_FALSE(path_exists(UPGRADE_PROGRESS_FILE));
    EXPECT_EQ(upgrade_in_progress, 0);
    EXPECT_EQ(orv_upd_timer, nullptr);
    EXPECT_EQ(platform_get_upgrade_status(), 0) << "whatever the download's state";
    pid_t lingering = number_in("/tmp/fw_dl.pid");
    EXPECT_EQ(begin(SOME_URL), 0);
    EXPECT_TRUE(has_ended(lingering)) << "two of them would write the same file";
}

TEST_F(upgrade_test, a_registration_tells_the_state_and_abandons_the_download)
{
    begin_upgrade();
    pid_t program = number_in("/tmp/fw_dl.pid");
    EXPECT_EQ(build_and_send_register(), 0);
    EXPECT_NE(take_one_told().find("\"swUpdateState\": 1, \"lumira\": true}"), std::string::npos);
    EXPECT_TRUE(has_ended(program));
    EXPECT_TRUE(was_logged("stop_fw_dl_process: ENTRY upgrade/download state 1, 1"));
    EXPECT_TRUE(was_logged("Terminating fw_dl pid " + std::to_string(program) + " (1,1)"));
    EXPECT_EQ(upgrade_in_progress, 0);
    EXPECT_EQ(https_download_status, 0);
    EXPECT_FALSE(path_exists(UPGRADE_PROGRESS_FILE)) << "it would refuse every upgrade from now on";
    clear_log();
    run_seconds(400);
    EXPECT_EQ(times_logged_beginning("Firmware upgrade not initated or stopped"), 1);
    EXPECT_EQ(times_logged_beginning("fw_dl process"), 0) << "nobody looks for it any more";
    EXPECT_TRUE(take_told().empty());
    EXPECT_EQ(build_and_send_register(), 0);
    EXPECT_NE(take_one_told().find("\"swUpdateState\": 0, "), std::string::npos);
    EXPECT_EQ(begin(SOME_URL), 0);
}

TEST_F(upgrade_test, the_state_of_a_finished_download_is_told_too)
{
    begin_upgrade();
    https_download_status = DOWNLOAD_COMPLETE;
    EXPECT_EQ(platform_get_upgrade_status(), 2);
    https_download_status = DOWNLOAD_FAILED;
    EXPECT_EQ(platform_get_upgrade_status(), 3);
    for (int32_t other : {-1, 0, 4}) {
        https_download_status = other;
        EXPECT_EQ(platform_get_upgrade_status(), 0);
    }
}

TEST_F(upgrade_test, a_late_report_of_an_abandoned_download_flashes_nothing)
{
    begin_upgrade();
    ASSERT_EQ(send_datagram_to(platform_get_event_sock_path(), "{\"msgType\":401}"), 0);
    stop_fw_dl_process();
    run_seconds(10);
    EXPECT_TRUE(recorded("upgrade.sh").empty());
    EXPECT_TRUE(was_logged("Firmware upgrade not initated or stopped"));
}

TEST_F(upgrade_test, a_late_report_does_not_count_for_the_next_download)
{
    begin_upgrade();
    ASSERT_EQ(send_datagram_to(platform_get_event_sock_path(), "{\"msgType\":401}"), 0);
    ASSERT_EQ(send_datagram_to(platform_get_event_sock_path(), "{\"msgType\":699}"), 0);
    stop_fw_dl_process();
    EXPECT_EQ(begin(SOME_URL), 0);
    run_seconds(10);
    EXPECT_TRUE(recorded("upgrade.sh").empty());
    EXPECT_EQ(https_download_status, DOWNLOAD_RUNNING);
    texts told = take_told();
    ASSERT_EQ(told.size(), 2u);
    EXPECT_EQ(told[0], "{\"msgType\":699}") << "an event of somebody else is forwarded all the same";
}

TEST_F(upgrade_test, an_agent_without_connection_upgrades_in_silence)
{
    begin_upgrade();
    da_enter_state(DA_STATE_DISCONNECTED);
    report("{\"msgType\":401}");
    run_seconds(4);
    EXPECT_EQ(recorded("upgrade.sh"), std::vector<std::string>{"/tmp/firmware"});
    EXPECT_FALSE(path_exists(UPGRADE_PROGRESS_FILE));
}
