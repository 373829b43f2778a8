#include "platform/connection-status.h"

#include <cstring>
#include <filesystem>
#include <memory>

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "agent/da.h"
#include "agent/ev.h"
#include "platform/wifid.h"
#include "tests/unit/support.h"
#include "tests/unit/wifid-end.h"

/* The clock of the event loop, which a test can set forward. */
static time_t seconds_ahead;

extern "C" int clock_gettime(clockid_t clock, struct timespec *now) noexcept
{
    int result = static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    if (clock == CLOCK_MONOTONIC)
        now->tv_sec += seconds_ahead;
    return result;
}

class connection_status : public testing::Test {
protected:
    std::unique_ptr<wifid_end> wifid;

    void SetUp() override
    {
        fresh_agent();
        connection_status_reset();
        seconds_ahead = 0;
        controller_connected = 0;
        std::filesystem::remove_all(ORV_STATE_FILE);
        wifid = std::make_unique<wifid_end>();
    }
    void TearDown() override { std::filesystem::remove_all(ORV_STATE_FILE); }

    /* Publishes a status and gives the file's text. */
    static std::string shown(int32_t code, const char *detail = nullptr)
    {
        EXPECT_EQ(platform_set_orv_connection_state(code, detail), 0);
        return file_text(ORV_STATE_FILE);
    }
};

/* ---- the texts ---- */

TEST_F(connection_status, every_code_has_its_text)
{
    static const char *const texts[] = {"Not Connected",
                                        "Resolving URL",
                                        "Velmora-ID Not Configured",
                                        "Access Denied",
                                        "Connecting",
                                        "Device Approval Pending",
                                        "Connected to ",
                                        ""};
    for (int32_t code = 0; code < ORV_STATE_COUNT; code++) {
        EXPECT_EQ(shown(code), texts[code]) << code;
        std::string text = code == ORV_CONNECTED ? "Connected" : texts[code];
        EXPECT_TRUE(was_logged("platform_set_orv_connection_state: New Connection_state " + text + "(" +
                               std::to_string(code) + ")"));
    }
}

TEST_F(connection_status, there_are_no_other_codes)
{
    shown(ORV_CONNECTING);
    for (int32_t code : {-1, 8, 1000000}) {
        EXPECT_EQ(platform_set_orv_connection_state(code, "x"), -1) << code;
        EXPECT_EQ(file_text(ORV_STATE_FILE), "Connecting");
    }
}

TEST_F(connection_status, details_replace_the_text_where_the_code_allows_it)
{
    static const struct {
        int32_t code;
        const char *expected;
    } rows[] = {
        {0, "Not Connected"}, {1, "detail"}, {2, "detail"},         {3, "detail"},
        {4, "Connecting"},    {5, "detail"}, {6, "Connected to h"}, {7, "detail"},
    };
    strcpy(g_orv_router, "h");
    for (const auto &row : rows)
        EXPECT_EQ(shown(row.code, "detail"), row.expected) << row.code;
}

TEST_F(connection_status, connected_names_the_controllers_host)
{
    strcpy(g_orv_router, "h");
    EXPECT_EQ(shown(ORV_CONNECTED), "Connected to h");
}

TEST_F(connection_status, long_texts_are_cut)
{
    std::string detail(600, 'x');
    EXPECT_EQ(shown(ORV_RESOLVING_URL, detail.c_str()), std::string(127, 'x'));
    for (int32_t code :
         {ORV_ID_NOT_CONFIGURED, ORV_ACCESS_DENIED, ORV_APPROVAL_PENDING, ORV_TEXT_FROM_CONTROLLER})
        EXPECT_EQ(shown(code, detail.c_str()), std::string(383, 'x')) << code;
}

TEST_F(connection_status, no_character_is_cut_in_two)
{
    std::string detail = "x";
    for (int i = 0; i < 300; i++)
        detail += "\u00e9";
    EXPECT_EQ(shown(ORV_RESOLVING_URL, detail.c_str()), detail.substr(0, 127));
    EXPECT_EQ(shown(ORV_TEXT_FROM_CONTROLLER, detail.c_str()), detail.substr(0, 383));
    EXPECT_EQ(shown(ORV_RESOLVING_URL, detail.c_str() + 1), detail.substr(1, 126));
    EXPECT_EQ(shown(ORV_TEXT_FROM_CONTROLLER, detail.c_str() + 1), detail.substr(1, 382));
}

TEST_F(connection_status, the_file_stays_one_line)
{
    EXPECT_EQ(shown(ORV_TEXT_FROM_CONTROLLER, "first\nsecond\n"), "first second ");
    EXPECT_EQ(shown(ORV_TEXT_FROM_CONTROLLER, "a\x1b[2Jb\rc\td\x7f"), "a [2Jb c d ");
}

TEST_F(connection_status, percent_signs_are_not_interpreted)
{
    EXPECT_EQ(shown(ORV_ACCESS_DENIED, "100%s %n"), "100%s %n");
}

TEST_F(connection_status, a_shorter_text_leaves_nothing_of_a_longer_one)
{
    shown(ORV_APPROVAL_PENDING);
    EXPECT_EQ(shown(ORV_CONNECTING), "Connecting");
}

/* ---- the countdown ---- */

TEST_F(connection_status, the_countdown_is_shown_in_minutes)
{
    static const struct {
        int32_t retry_time;
        const char *expected;
        int timers;
    } rows[] = {
        {0, "Connecting", 0},
        {60, "Connecting", 0},
        {61, "Connecting in 1 minute", 1},
        {90, "Connecting in 1 minute", 1},
        {119, "Connecting in 1 minute", 1},
        {120, "Connecting in 2 minutes", 1},
        {150, "Connecting in 2 minutes", 1},
        {359, "Connecting in 5 minutes", 1},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.retry_time);
        connection_status_reset();
        retry_time = row.retry_time;
        idle_timeout = 359;
        EXPECT_EQ(shown(ORV_CONNECTING), row.expected);
        EXPECT_EQ(ev_count_timers(), row.timers);
        EXPECT_TRUE(was_logged("platform_set_orv_connection_state: idle_timeout=359"));
    }
}

TEST_F(connection_status, the_countdown_goes_down_by_itself)
{
    retry_time = 150;
    shown(ORV_CONNECTING);
    seconds_ahead += 59;
    EXPECT_FALSE(run_loop_until([] { return retry_time != 150; }, 100)) << "not before 60 s";
    seconds_ahead += 3;
    ASSERT_TRUE(run_loop_until([] { return retry_time != 150; }));
    EXPECT_EQ(retry_time, 90);
    EXPECT_EQ(file_text(ORV_STATE_FILE), "Connecting in 1 minute");
    EXPECT_EQ(ev_count_timers(), 1) << "re-armed";
    seconds_ahead += 62;
    ASSERT_TRUE(run_loop_until([] { return retry_time != 90; }));
    EXPECT_EQ(retry_time, 30);
    EXPECT_EQ(file_text(ORV_STATE_FILE), "Connecting");
    EXPECT_EQ(ev_count_timers(), 0) << "below a minute nothing counts any more";
}

TEST_F(connection_status, a_countdown_that_has_run_out_is_0)
{
    retry_time = 30;
    status_notify_cb(nullptr);
    EXPECT_EQ(retry_time, 0);
    EXPECT_EQ(file_text(ORV_STATE_FILE), "Connecting");
}

TEST_F(connection_status, a_countdown_counts_on_behind_a_pending_status_without_showing)
{
    retry_time = 150;
    shown(ORV_CONNECTING);
    shown(ORV_ACCESS_DENIED);
    status_notify_cb(nullptr);
    EXPECT_EQ(retry_time, 90);
    EXPECT_EQ(file_text(ORV_STATE_FILE), "Access Denied");
}

TEST_F(connection_status, a_connection_ends_the_countdown)
{
    retry_time = 150;
    shown(ORV_CONNECTING);
    shown(ORV_CONNECTED);
    da.state = DA_STATE_CONNECTED;
    status_notify_cb(nullptr);
    EXPECT_EQ(retry_time, 0);
    EXPECT_EQ(file_text(ORV_STATE_FILE), "Connected to ");
}

TEST_F(connection_status, there_is_one_countdown_however_often_it_is_published)
{
    retry_time = 300;
    for (int i = 0; i < 3; i++)
        shown(ORV_CONNECTING);
    EXPECT_EQ(ev_count_timers(), 1);
}

/* ---- statuses that stay on display ---- */

TEST_F(connection_status, codes_set_and_clear_the_pending_flag)
{
    static const struct {
        int32_t code, from_0, from_1;
    } rows[] = {
        {0, 0, 0}, {1, 1, 1}, {2, 1, 1}, {3, 1, 1}, {4, 0, 0}, {5, 1, 1}, {6, 0, 0}, {7, 0, 1},
    };
    for (const auto &row : rows) {
        orv_state_action_pending = 0;
        shown(row.code);
        EXPECT_EQ(orv_state_action_pending, row.from_0) << row.code;
        orv_state_action_pending = 1;
        shown(row.code);
        EXPECT_EQ(orv_state_action_pending, row.from_1) << row.code;
    }
}

TEST_F(connection_status, resolving_clears_itself_after_10_seconds)
{
    shown(ORV_RESOLVING_URL);
    EXPECT_EQ(ev_count_timers(), 1);
    seconds_ahead += 9;
    EXPECT_FALSE(run_loop_until([] { return orv_state_action_pending == 0; }, 100)) << "not before 10 s";
    seconds_ahead += 3;
    EXPECT_TRUE(run_loop_until([] { return orv_state_action_pending == 0; }));
    EXPECT_TRUE(was_logged("reset_action_pending_cb: Clearing action_pending status"));
    EXPECT_EQ(file_text(ORV_STATE_FILE), "Resolving URL") << "the text stays until the next status";
}

TEST_F(connection_status, a_later_status_is_not_cleared_by_an_earlier_resolving)
{
    for (int32_t code : {ORV_ID_NOT_CONFIGURED, ORV_ACCESS_DENIED, ORV_APPROVAL_PENDING}) {
        SCOPED_TRACE(code);
        shown(ORV_RESOLVING_URL);
        shown(code);
        EXPECT_EQ(ev_count_timers(), 0);
        EXPECT_EQ(orv_state_action_pending, 1);
    }
}

TEST_F(connection_status, resolving_again_starts_its_10_seconds_again)
{
    shown(ORV_RESOLVING_URL);
    seconds_ahead += 8;
    shown(ORV_RESOLVING_URL);
    EXPECT_EQ(ev_count_timers(), 1);
    seconds_ahead += 5;
    EXPECT_FALSE(run_loop_until([] { return orv_state_action_pending == 0; }, 100));
}

/* ---- the Wi-Fi daemon ---- */

TEST_F(connection_status, the_daemon_is_told_of_every_loss_and_of_one_connection)
{
    shown(ORV_CONNECTED);
    EXPECT_EQ(wifid->receive(), "\2{\"status\": 1}");
    EXPECT_EQ(controller_connected, 1);
    shown(ORV_CONNECTED);
    EXPECT_EQ(wifid->receive(), "(nothing)") << "told once";
    for (int i = 0; i < 2; i++) {
        shown(ORV_NOT_CONNECTED);
        EXPECT_EQ(wifid->receive(), "\2{\"status\": 0}");
        EXPECT_EQ(controller_connected, 0);
    }
    for (int32_t code : {1, 2, 3, 4, 5, 7}) {
        shown(code);
        EXPECT_EQ(wifid->receive(), "(nothing)") << code;
    }
}

TEST_F(connection_status, without_the_daemon_the_status_is_published)
{
    wifid.reset();
    EXPECT_EQ(shown(ORV_NOT_CONNECTED), "Not Connected");
}

/* ---- the file ---- */

TEST_F(connection_status, an_unwritable_file_is_logged_and_changes_nothing)
{
    std::filesystem::create_directories(ORV_STATE_FILE "/occupied");
    orv_state_action_pending = 1;
    EXPECT_EQ(platform_set_orv_connection_state(ORV_NOT_CONNECTED, nullptr), -1);
    EXPECT_EQ(logged(), std::vector<std::string>{"wifi.c:Unable to open orv_state file for writing"});
    EXPECT_EQ(orv_state_action_pending, 1);
    EXPECT_EQ(wifid->receive(), "(nothing)");
    EXPECT_EQ(platform_set_orv_connection_state(ORV_RESOLVING_URL, nullptr), -1);
    EXPECT_EQ(ev_count_timers(), 0);
}

TEST_F(connection_status, a_full_medium_keeps_the_old_text_but_not_the_device_in_the_dark)
{
    ASSERT_EQ(mount("tmpfs", "/tmp", "tmpfs", 0, "size=16k"), 0);
    EXPECT_EQ(platform_set_orv_connection_state(ORV_CONNECTING, nullptr), 0);
    EXPECT_NE(system("cat /dev/zero > /tmp/fill 2>/dev/null"), 0);
    orv_state_action_pending = 1;
    EXPECT_EQ(platform_set_orv_connection_state(ORV_NOT_CONNECTED, nullptr), -1);
    EXPECT_EQ(file_text(ORV_STATE_FILE), "Connecting");
    EXPECT_EQ(orv_state_action_pending, 0);
    EXPECT_EQ(wifid->receive(), std::string("\x02") + "{\"status\": 0}");
    EXPECT_EQ(umount("/tmp"), 0);
}

TEST_F(connection_status, a_link_in_its_place_is_replaced_not_followed)
{
    write_file("/tmp/victim", "untouched");
    std::filesystem::create_symlink("/tmp/victim", ORV_STATE_FILE);
    EXPECT_EQ(shown(ORV_CONNECTING), "Connecting");
    EXPECT_EQ(file_text("/tmp/victim"), "untouched");
    EXPECT_FALSE(std::filesystem::is_symlink(ORV_STATE_FILE));
}
