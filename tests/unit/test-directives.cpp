#include "protocol/directives.h"

#include <climits>
#include <cstdlib>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include "agent/owners.h"
#include "protocol/error-codes.h"
#include "tests/unit/connection-test.h"

using calls = std::vector<std::string>;

class directives_test : public connection_test {
protected:
    void SetUp() override
    {
        connection_test::SetUp();
        setenv("TZ", "UTC0", 1);
        error_string[0] = '\0';
        for (const char *tool : {"date", "shutdown.sh"})
            clear_recorded(tool);
    }
};

static int call(int (*handler)(const json_t *, char *), const char *text)
{
    json_ptr obj(json_loads(text, 0, nullptr));
    EXPECT_NE(obj, nullptr) << text;
    return handler(obj.get(), error_string);
}

struct refused_row {
    const char *request, *message;
};

/* ---- status text ---- */

TEST_F(directives_test, a_status_text_is_shown)
{
    EXPECT_EQ(call(parse_and_apply_orvanta_status, "{\"Orvanta\": {\"status\": \"Waiting for 100% of it\"}}"),
              0);
    EXPECT_EQ(file_text(ORV_STATE_FILE), "Waiting for 100% of it");
    EXPECT_TRUE(was_logged("Orvanta status to display [Waiting for 100% of it]"));
}

TEST_F(directives_test, a_status_of_another_shape_is_refused)
{
    static const refused_row rows[] = {
        {"{}", "Invalid Orvanta object received"},
        {"{\"Orvanta\": \"text\"}", "Invalid Orvanta object received"},
        {"{\"Orvanta\": [\"status\"]}", "Invalid Orvanta object received"},
        {"{\"Orvanta\": {}}", "Invalid status received"},
        {"{\"Orvanta\": {\"status\": 5}}", "Invalid status received"},
        {"{\"Orvanta\": {\"status\": null}}", "Invalid status received"},
    };
    write_file(ORV_STATE_FILE, "as before");
    for (const refused_row &row : rows) {
        clear_log();
        EXPECT_EQ(call(parse_and_apply_orvanta_status, row.request), 1) << row.request;
        EXPECT_STREQ(error_string, row.message) << row.request;
        EXPECT_TRUE(was_logged(row.message)) << row.request;
    }
    EXPECT_EQ(parse_and_apply_orvanta_status(nullptr, error_string), 1);
    EXPECT_STREQ(error_string, "Invalid object received");
    EXPECT_EQ(file_text(ORV_STATE_FILE), "as before");
}

/* ---- retry intervals ---- */

TEST_F(directives_test, retry_intervals_are_kept)
{
    EXPECT_EQ(call(parse_and_apply_retry_intvls, "{\"waitTime\": 600, \"deltaTime\": 0}"), 0);
    EXPECT_EQ(da.reconnect_wait, 600);
    EXPECT_EQ(da.reconnect_delta, 0);
    EXPECT_TRUE(was_logged("Orvanta has sent reconnect wait=600 delta=0"));
}

TEST_F(directives_test, retry_intervals_are_clamped)
{
    EXPECT_EQ(call(parse_and_apply_retry_intvls, "{\"waitTime\": 99999999999, \"deltaTime\": -99999999999}"),
              0);
    EXPECT_EQ(da.reconnect_wait, INT_MAX);
    EXPECT_EQ(da.reconnect_delta, INT_MIN);
}

TEST_F(directives_test, a_wait_without_a_delta_is_kept_and_refused)
{
    for (const char *text :
         {"{\"waitTime\": 600}", "{\"waitTime\": 600, \"deltaTime\": \"60\"}",
          "{\"waitTime\": 600, \"deltaTime\": 6.5}", "{\"waitTime\": 600, \"deltaTime\": null}"}) {
        da.reconnect_wait = 300;
        clear_log();
        EXPECT_EQ(call(parse_and_apply_retry_intvls, text), 1) << text;
        EXPECT_STREQ(error_string, "Invalid deltaTime received") << text;
        EXPECT_TRUE(was_logged("Invalid deltaTime received")) << text;
        EXPECT_EQ(da.reconnect_wait, 600) << text;
        EXPECT_EQ(da.reconnect_delta, 60) << text;
    }
}

TEST_F(directives_test, a_wait_of_another_type_changes_nothing)
{
    for (const char *text : {"{}", "{\"deltaTime\": 5}", "{\"waitTime\": \"600\", \"deltaTime\": 5}",
                             "{\"waitTime\": true, \"deltaTime\": 5}"}) {
        EXPECT_EQ(call(parse_and_apply_retry_intvls, text), 1) << text;
        EXPECT_STREQ(error_string, "Invalid waitTime received") << text;
        EXPECT_EQ(da.reconnect_wait, 300) << text;
        EXPECT_EQ(da.reconnect_delta, 60) << text;
    }
}

/* ---- clock ---- */

TEST_F(directives_test, the_clock_is_set_by_date)
{
    EXPECT_EQ(set_system_time(0), 0);
    EXPECT_EQ(recorded("date"), calls{"1970.01.01-00:00:00"});
    EXPECT_TRUE(was_logged("set_system_time: UTC time: 0\n"));
    EXPECT_TRUE(was_logged("Syncing system time to Orvanta time [1970.01.01-00:00:00]"));
}

TEST_F(directives_test, date_is_told_the_local_time)
{
    setenv("TZ", "CET-1", 1);
    EXPECT_EQ(set_system_time(1700000000), 0);
    EXPECT_EQ(recorded("date"), calls{"2023.11.14-23:13:20"});
}

TEST_F(directives_test, a_time_that_no_calendar_has_runs_nothing)
{
    EXPECT_EQ(set_system_time(INT64_MAX), -1);
    EXPECT_EQ(set_system_time(INT64_MIN), -1);
    EXPECT_EQ(recorded("date"), calls{});
    EXPECT_TRUE(was_logged("set_system_time: no calendar has the time 9223372036854775807"));
}

TEST_F(directives_test, the_widest_year_fits)
{
    EXPECT_EQ(set_system_time(67768036191676799), 0);
    EXPECT_EQ(recorded("date"), calls{"2147485547.12.31-23:59:59"});
}

/* ---- reboot ---- */

static bool shut_down(void) { return !recorded("shutdown.sh").empty(); }

TEST_F(directives_test, a_bare_request_reboots_after_five_and_five_seconds)
{
    connect_agent();
    EXPECT_EQ(call(parse_reboot_request, "{\"msgType\": 102}"), 0);
    EXPECT_TRUE(was_logged("Rebooting device after 5 seconds"));
    EXPECT_FALSE(was_logged_beginning("Reboot reason from Orvanta"));
    int closed = seconds_until([] { return close_reason_on_wire() == "DEV_REBOOT"; });
    EXPECT_TRUE(closed >= 5 && closed <= 7) << closed;
    EXPECT_FALSE(shut_down());
    int waited = seconds_until(shut_down);
    EXPECT_TRUE(waited >= 4 && waited <= 7) << waited;
    EXPECT_EQ(recorded("shutdown.sh"), calls{""});
    EXPECT_TRUE(was_logged("reboot_timer_cb: g_rebootReason []"));
    EXPECT_TRUE(was_logged("** Please standby rebooting device **"));
    EXPECT_GE(idle_timeout, 60) << "no hurry to come back before the reboot";
}

TEST_F(directives_test, reason_and_delay_are_the_controllers)
{
    EXPECT_EQ(
        call(parse_reboot_request, "{\"reason\": \"Firmware 100%% new\", \"delay\": 120, \"force\": true}"),
        0);
    EXPECT_TRUE(was_logged("Reboot reason from Orvanta: Firmware 100%% new "));
    EXPECT_TRUE(was_logged("Rebooting device after 120 seconds"));
    EXPECT_EQ(reboot_force, 1);
    int waited = seconds_until(shut_down);
    EXPECT_TRUE(waited >= 125 && waited <= 130) << waited;
    EXPECT_EQ(recorded("shutdown.sh"), calls{"Firmware 100% new"});
}

TEST_F(directives_test, without_a_connection_it_reboots_all_the_same)
{
    EXPECT_EQ(call(parse_reboot_request, "{\"delay\": 1}"), 0);
    EXPECT_NE(seconds_until(shut_down), -1);
    EXPECT_EQ(close_reason_on_wire(), "");
}

struct delay_row {
    const char *request;
    int least, most; /* seconds until the script runs */
};

TEST_F(directives_test, delays_of_every_kind)
{
    static const delay_row rows[] = {
        {"{\"delay\": 0}", 6, 10},     {"{\"delay\": -7}", 6, 10},    {"{\"delay\": \"60\"}", 10, 14},
        {"{\"delay\": 60.5}", 10, 14}, {"{\"delay\": null}", 10, 14}, {"{\"delay\": 3000}", 3005, 3010},
    };
    for (const delay_row &row : rows) {
        clear_recorded("shutdown.sh");
        EXPECT_EQ(call(parse_reboot_request, row.request), 0) << row.request;
        int waited = seconds_until(shut_down);
        EXPECT_TRUE(waited >= row.least && waited <= row.most) << row.request << ": " << waited;
    }
}

TEST_F(directives_test, only_a_boolean_moves_the_force_flag)
{
    static const std::pair<const char *, int> rows[] = {
        {"{\"force\": true}", 1},  {"{\"force\": 0}", 1},       {"{}", 1},
        {"{\"force\": false}", 0}, {"{\"force\": \"yes\"}", 0}, {"{\"force\": 1}", 0},
    };
    for (const auto &[request, force] : rows) {
        EXPECT_EQ(call(parse_reboot_request, request), 0);
        EXPECT_EQ(reboot_force, force) << request;
    }
}

TEST_F(directives_test, a_reason_is_cut_to_127_characters_and_forgotten_by_the_next_request)
{
    std::string request = "{\"reason\": \"" + std::string(300, 'r') + "\", \"delay\": 1}";
    EXPECT_EQ(call(parse_reboot_request, request.c_str()), 0);
    EXPECT_NE(seconds_until(shut_down), -1);
    EXPECT_EQ(recorded("shutdown.sh"), calls{std::string(127, 'r')});
    clear_recorded("shutdown.sh");
    EXPECT_EQ(call(parse_reboot_request, "{\"reason\": 5, \"delay\": 1}"), 0);
    EXPECT_NE(seconds_until(shut_down), -1);
    EXPECT_EQ(recorded("shutdown.sh"), calls{""});
}

TEST_F(directives_test, a_second_request_moves_the_first)
{
    EXPECT_EQ(call(parse_reboot_request, "{\"reason\": \"first\", \"delay\": 1000}"), 0);
    EXPECT_EQ(call(parse_reboot_request, "{\"reason\": \"second\", \"delay\": 10}"), 0);
    EXPECT_EQ(ev_count_timers(), 1);
    int waited = seconds_until(shut_down);
    EXPECT_TRUE(waited >= 15 && waited <= 20) << waited;
    EXPECT_EQ(recorded("shutdown.sh"), calls{"second"});
    EXPECT_EQ(ev_count_timers(), 0);
}

TEST_F(directives_test, a_request_after_the_close_starts_no_second_reboot)
{
    connect_agent();
    EXPECT_EQ(call(parse_reboot_request, "{\"reason\": \"first\", \"delay\": 1}"), 0);
    EXPECT_NE(seconds_until([] { return close_reason_on_wire() == "DEV_REBOOT"; }), -1);
    int timers = ev_count_timers();
    EXPECT_EQ(call(parse_reboot_request, "{\"reason\": \"second\", \"delay\": 60}"), 0);
    EXPECT_EQ(ev_count_timers(), timers);
    int waited = seconds_until(shut_down);
    EXPECT_TRUE(waited >= 4 && waited <= 7) << waited;
    EXPECT_EQ(recorded("shutdown.sh"), calls{"second"});
}

TEST_F(directives_test, without_an_object)
{
    EXPECT_EQ(parse_reboot_request(nullptr, error_string), 7);
    EXPECT_STREQ(error_string, "jobj is NULL, ideally this should never happen");
    EXPECT_EQ(ev_count_timers(), 0);
}
