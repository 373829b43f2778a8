#include "protocol/dispatcher.h"

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include "operations/config-files.h"
#include "operations/config-pull.h"
#include "platform/station-disconnect.h"
#include "protocol/error-codes.h"
#include "tests/unit/connection-test.h"
#include "tests/unit/fake-device.h"
#include "tests/unit/queued.h"
#include "tests/unit/wifid-end.h"

class dispatcher_test : public connection_test {
protected:
    void SetUp() override
    {
        connection_test::SetUp();
        device = fake_device();
        da.state = DA_STATE_CONNECTED;
        snprintf(error_string, sizeof(error_string), "the failure before");
    }
    void TearDown() override
    {
        da.state = DA_STATE_IDLE;
        connection_test::TearDown();
    }
};

/* A message as the session hands it over: one spare byte behind it, which is no NUL. */
static int handle(const std::string &text)
{
    std::vector<char> buffer(text.begin(), text.end());
    buffer.push_back('}');
    return handle_orv_msg(buffer.data(), text.size(), nullptr);
}

/* ---- texts that are no request ---- */

struct refused_row {
    const char *text, *message;
};

TEST_F(dispatcher_test, text_that_is_not_json_is_answered_with_999_and_the_line)
{
    static const refused_row rows[] = {
        {"hello", "Unable to load JSON ,error  on line 1: '[' or '{' expected near 'hello'"},
        {"", "Unable to load JSON ,error  on line 1: '[' or '{' expected near end of file"},
        {"{\n\n \"a\": }", "Unable to load JSON ,error  on line 3: unexpected token near '}'"},
        {"{\"msgType\": 123", "Unable to load JSON ,error  on line 1: '}' expected near end of file"},
        {"5", "Unable to load JSON ,error  on line 1: '[' or '{' expected near '5'"},
    };
    for (const refused_row &row : rows) {
        EXPECT_EQ(handle(row.text), -1) << row.text;
        json_ptr reply(json_loads(take_one_queued().c_str(), 0, nullptr));
        ASSERT_NE(reply, nullptr) << row.text;
        EXPECT_STREQ(json_string_value(json_object_get(reply.get(), "message")), row.message);
        EXPECT_TRUE(was_logged(row.message)) << row.text;
    }
}

TEST_F(dispatcher_test, the_999_reply_is_exact)
{
    handle("hello");
    EXPECT_EQ(take_one_queued(),
              "{\"msgType\": 999, \"code\": \"BadRequest\", \"message\": "
              "\"Unable to load JSON ,error  on line 1: '[' or '{' expected near 'hello'\"}");
}

TEST_F(dispatcher_test, an_unreadable_text_of_any_bytes_is_answered)
{
    EXPECT_EQ(handle("\xFF\xFE{"), -1);
    EXPECT_EQ(take_queued().size(), 1u);
    EXPECT_EQ(handle(std::string("{\"msgType\"\0: 123}", 17)), -1);
    EXPECT_EQ(take_queued().size(), 1u);
    EXPECT_EQ(handle(std::string(100000, '[')), -1);
    EXPECT_EQ(take_queued().size(), 1u);
}

TEST_F(dispatcher_test, without_a_type_the_earlier_failure_is_logged_and_999_answered)
{
    for (const char *text : {"{\"foo\": 1}", "{}", "[]", "[123]"}) {
        snprintf(error_string, sizeof(error_string), "the failure before");
        clear_log();
        EXPECT_EQ(handle(text), -1);
        EXPECT_EQ(take_one_queued(), "{\"msgType\": 999, \"code\": \"BadRequest\", \"message\": "
                                     "\"Not able to find msgType in the json request\"}");
        EXPECT_TRUE(was_logged("the failure before"));
        EXPECT_FALSE(was_logged("Not able to find msgType in the json request"));
    }
}

TEST_F(dispatcher_test, the_text_ends_at_its_length)
{
    char buffer[] = "{\"msgType\": 116}{\"msgType\": 108}";
    EXPECT_EQ(handle_orv_msg(buffer, strlen("{\"msgType\": 116}"), nullptr), 0);
    EXPECT_EQ(buffer[strlen("{\"msgType\": 116}")], '\0');
    EXPECT_TRUE(was_logged("handle_orv_msg: UNKNOWN message 116 received from Orvanta"));
}

/* ---- unknown types ---- */

TEST_F(dispatcher_test, unknown_types_are_logged_and_dropped)
{
    static const refused_row rows[] = {
        {"116", "116"},
        {"118", "118"},
        {"120", "120"},
        {"121", "121"},
        {"0", "0"},
        {"-5", "-5"},
        {"100", "100"},
        {"\"103\"", "0"},
        {"\"108\"", "0"},
        {"108.0", "0"},
        {"null", "0"},
        {"4294967404", "2147483647"},
        {"-9223372036854775808", "-2147483648"},
    };
    for (const refused_row &row : rows) {
        clear_log();
        EXPECT_EQ(handle(std::string("{\"msgType\": ") + row.text + "}"), 0) << row.text;
        EXPECT_EQ(txq, nullptr) << row.text;
        EXPECT_TRUE(was_logged(std::string("handle_orv_msg: UNKNOWN message ") + row.message +
                               " received from Orvanta"))
            << row.text;
    }
}

/* ---- 109, 110 ---- */

TEST_F(dispatcher_test, a_command_that_is_refused)
{
    EXPECT_EQ(handle("{\"msgType\": 109, \"command\": \"sh\"}"), 1);
    EXPECT_EQ(take_one_queued(), "{\"msgType\": 709, \"code\": \"BadRequest\", \"message\": "
                                 "\"Trying to execute unapproved command\"}");
    EXPECT_TRUE(was_logged("handle_orv_msg: MSG_EXEC_CMD received"));
    EXPECT_TRUE(was_logged("Exec command failure : Trying to execute unapproved command"));
    EXPECT_EQ(handle("{\"msgType\": 109}"), 1);
    EXPECT_EQ(take_one_queued(), "{\"msgType\": 709, \"code\": \"BadRequest\", \"message\": "
                                 "\"Trying to execute unapproved command\"}")
        << "without a command the text from before stays";
}

TEST_F(dispatcher_test, a_command_without_output_is_told_by_its_name)
{
    sta_disconnect_cb = [](const char *) { return 0; };
    const std::string request = "\"command\": \"disconnect-clients\", \"arguments\": {\"macs\": [\"ALL\"]}}";
    EXPECT_EQ(handle("{\"msgType\": 109, " + request), 0);
    EXPECT_EQ(take_one_queued(),
              "{\"msgType\": 409, \"command\": \"disconnect-clients\", \"status\": \"Complete\"}");
    sta_disconnect_cb = nullptr;
    EXPECT_EQ(handle("{\"msgType\": 109, " + request), 1) << "not on a device that cannot";
    (void)take_queued();
}

TEST_F(dispatcher_test, a_command_that_fails_is_told_by_its_name)
{
    EXPECT_EQ(handle("{\"msgType\": 109, \"command\": \"wifiperf\"}"), 0);
    EXPECT_EQ(take_one_queued(), "{\"msgType\": 709, \"command\": \"wifiperf\", \"code\": \"InternalError\", "
                                 "\"message\": \"Execution failed\"}")
        << "there is no configuration daemon";
}

TEST_F(dispatcher_test, a_stop)
{
    EXPECT_EQ(handle("{\"msgType\": 110, \"command\": \"wifiperf\"}"), 0);
    EXPECT_EQ(take_one_queued(), "{\"msgType\": 410, \"command\": \"wifiperf\", \"status\": \"Completed\"}");
    EXPECT_EQ(handle("{\"msgType\": 110}"), 0);
    EXPECT_EQ(take_one_queued(), "{\"msgType\": 410}");
    EXPECT_TRUE(was_logged("handle_orv_msg: MSG_EXEC_STOP received"));
}

/* ---- 106, 107 ---- */

static int wifiperf_stops;

TEST_F(dispatcher_test, a_configuration_update_that_is_refused)
{
    wifiperf_stops = 0;
    hooks.stop_wifiperf = [] { wifiperf_stops++; };
    EXPECT_EQ(handle("{\"msgType\": 106, \"config\": 5}"), 1);
    EXPECT_EQ(take_one_queued(), "{\"msgType\": 706, \"code\": \"BadRequest\", \"message\": "
                                 "\"Invalid Config Attribute in json request from Orvanta\"}");
    EXPECT_TRUE(was_logged("handle_orv_msg: MSG_CONFIG_UPDATE_REQUEST received"));
    EXPECT_EQ(file_text(ORV_STATE_FILE), "Connected to " + std::string(g_orv_router));
    EXPECT_EQ(wifiperf_stops, 1) << "whatever the result";
}

TEST_F(dispatcher_test, a_configuration_update_that_does_nothing_gets_no_answer)
{
    wifiperf_stops = 0;
    hooks.stop_wifiperf = [] { wifiperf_stops++; };
    EXPECT_EQ(handle("{\"msgType\": 106, \"nativeConfig\": \"x\"}"), 0);
    EXPECT_EQ(txq, nullptr);
    EXPECT_EQ(wifiperf_stops, 1);
    hooks.stop_wifiperf = nullptr;
    EXPECT_EQ(handle("{\"msgType\": 106, \"nativeConfig\": \"x\"}"), 0);
}

TEST_F(dispatcher_test, a_configuration_with_a_nul_is_no_message)
{
    write_file(CONFIG_FILE, "old");
    EXPECT_EQ(handle("{\"msgType\": 106, \"overwrite\": true, \"config\": \"a\\u0000b\"}"), -1);
    EXPECT_EQ(take_one_queued().compare(0, 15, "{\"msgType\": 999"), 0);
    EXPECT_EQ(file_text(CONFIG_FILE), "old");
}

TEST_F(dispatcher_test, a_failed_pull_has_a_fixed_text)
{
    (void)unlink(CONFIG_FILE);
    EXPECT_EQ(handle("{\"msgType\": 107}"), -1);
    EXPECT_EQ(take_one_queued(),
              "{\"msgType\": 707, \"code\": \"BadRequest\", \"message\": \"ERR_BAD_REQUEST\"}");
    EXPECT_STREQ(error_string, "the failure before") << "nothing was written there";
    EXPECT_TRUE(was_logged("handle_orv_msg: MSG_CONFIG_PULL_REQUEST received"));
    EXPECT_TRUE(was_logged("handle_orv_msg: MSG_CONFIG_PULL_REQUEST Complete"));
    write_file(CONFIG_FILE, "");
    std::filesystem::resize_file(CONFIG_FILE, uintmax_t{PULL_CONFIG_LIMIT} + 1);
    EXPECT_EQ(handle("{\"msgType\": 107}"), 7);
    EXPECT_EQ(take_one_queued(),
              "{\"msgType\": 707, \"code\": \"InternalError\", \"message\": \"ERR_BAD_REQUEST\"}");
    EXPECT_STREQ(error_string, "Malloc failed");
    (void)unlink(CONFIG_FILE);
}

TEST_F(dispatcher_test, a_pull)
{
    write_file(CONFIG_FILE, "a\nb\n");
    EXPECT_EQ(handle("{\"msgType\": 107}"), 0);
    EXPECT_EQ(take_one_queued(), "{\"msgType\": 407, \"config\": \"a\\\\nb\\\\n\"}");
    (void)unlink(CONFIG_FILE);
}

/* ---- 108 ---- */

TEST_F(dispatcher_test, managed_information_is_applied_and_answered)
{
    EXPECT_EQ(handle("{\"msgType\": 108, \"managed\": true}"), 0);
    EXPECT_EQ(da.mgmt_flag, 1);
    EXPECT_EQ(take_one_queued(), "{\"msgType\": 408}");
    EXPECT_TRUE(was_logged("handle_orv_msg:MSG_MANAGED_INFO received"));
    EXPECT_TRUE(was_logged("handle_orv_msg:MSG_MANAGED_INFO Complete"));
    EXPECT_EQ(handle("{\"managed\": \"yes\", \"msgType\": 108}"), 0);
    EXPECT_EQ(da.mgmt_flag, 1);
    EXPECT_EQ(take_one_queued(), "{\"msgType\": 408}");
}

/* ---- 416 ---- */

TEST_F(dispatcher_test, an_answer_for_the_wifi_daemon_is_passed_on_and_not_answered)
{
    wifid_end end;
    EXPECT_EQ(handle("{\"ctrlrPayload\": {\"b\": 1, \"a\": [2]}, \"msgType\": 416}"), 0);
    EXPECT_EQ(end.receive(), std::string("\0{\"b\": 1, \"a\": [2]}", 19));
    EXPECT_EQ(handle("{\"msgType\": 416}"), -1);
    EXPECT_EQ(end.receive(), "(nothing)");
    EXPECT_TRUE(was_logged("no ctrlr payload in controller response{\"msgType\": 416}"));
    EXPECT_EQ(txq, nullptr);
}

/* ---- 115 ---- */

TEST_F(dispatcher_test, locate_runs_the_tool_and_is_always_answered)
{
    write_file("/usr/bin/flash_leds", "#!/bin/sh\necho \"$#\" > /tmp/leds\nexit 3\n");
    chmod("/usr/bin/flash_leds", 0755);
    (void)unlink("/tmp/leds");
    EXPECT_EQ(handle("{\"msgType\": 115}"), 0);
    EXPECT_EQ(take_one_queued(), "{\"msgType\": 415}");
    EXPECT_EQ(file_text("/tmp/leds"), "0\n");
    EXPECT_TRUE(was_logged("handle_orv_msg: MSG_LOCATE_CMD received"));
    EXPECT_TRUE(was_logged("platform_locate: ** Blinking device LEDs ** "));
    EXPECT_TRUE(was_logged("handle_orv_msg: MSG_LOCATE_CMD_REQUEST Complete"));
    (void)unlink("/usr/bin/flash_leds");
    EXPECT_EQ(handle("{\"msgType\": 115}"), 0);
    EXPECT_EQ(take_one_queued(), "{\"msgType\": 415}") << "a device without the tool too";
}

/* ---- 102, 117, 697 ---- */

TEST_F(dispatcher_test, a_reboot_is_accepted_at_once)
{
    EXPECT_EQ(handle("{\"msgType\": 102}"), 0);
    EXPECT_EQ(take_one_queued(), "{\"msgType\": 402}");
    EXPECT_EQ(ev_count_timers(), 1) << "REBOOT";
}

TEST_F(dispatcher_test, retry_intervals_are_answered_only_when_refused)
{
    EXPECT_EQ(handle("{\"msgType\": 117, \"waitTime\": 600, \"deltaTime\": 30}"), 0);
    EXPECT_EQ(txq, nullptr);
    EXPECT_EQ(handle("{\"msgType\": 117, \"waitTime\": 700}"), 1);
    EXPECT_EQ(take_one_queued(),
              "{\"msgType\": 717, \"code\": \"BadRequest\", \"message\": \"Invalid deltaTime received\"}");
    EXPECT_EQ(da.reconnect_wait, 700);
}

TEST_F(dispatcher_test, a_refused_status_text_is_answered_with_999)
{
    EXPECT_EQ(handle("{\"msgType\": 697, \"Orvanta\": {\"status\": \"Up for approval\"}}"), 0);
    EXPECT_EQ(txq, nullptr);
    EXPECT_EQ(file_text(ORV_STATE_FILE), "Up for approval");
    EXPECT_EQ(handle("{\"msgType\": 697, \"Orvanta\": {\"status\": 5}}"), 1);
    EXPECT_EQ(take_one_queued(),
              "{\"msgType\": 999, \"code\": \"BadRequest\", \"message\": \"Invalid status received\"}");
}

/* ---- 123 ---- */

TEST_F(dispatcher_test, device_information_is_its_own_answer)
{
    EXPECT_EQ(handle("{\"msgType\": 123}"), 0);
    EXPECT_EQ(take_one_queued(), "{\"msgType\": 423, \"lastCloseReason\": \"\", \"lastCloseTS\": 0, "
                                 "\"lastRebootReason\": \"\", \"lastRebootTS\": 0, \"uptime\": 4242}");
    EXPECT_TRUE(was_logged("handle_orv_msg:MSG_DEV_INFO_REQUEST received"));
}

/* ---- 400 and 700 ---- */

TEST_F(dispatcher_test, an_acceptance)
{
    setenv("TZ", "UTC0", 1);
    clear_recorded("date");
    start_cfg_restore_timer();
    EXPECT_EQ(handle("{\"msgType\": 400, \"orvTime\": 1700000000}"), 0);
    EXPECT_EQ(da.registered, 1);
    EXPECT_EQ(recorded("date"), std::vector<std::string>{"2023.11.14-22:13:20"});
    EXPECT_EQ(file_text(ORV_STATE_FILE), "Device Approval Pending");
    EXPECT_TRUE(was_logged("handle_orv_msg: MSG_REGISTER_SUCCESS received"));
    EXPECT_TRUE(was_logged("Got connected 'back' after CFG_UPDATE, deleting the cfg_restore_timer"));
    EXPECT_EQ(ev_count_timers(), 0);
    EXPECT_EQ(txq, nullptr) << "it gets no answer";
}

TEST_F(dispatcher_test, a_refusal)
{
    da.registered = 1;
    da.register_sent = 1;
    EXPECT_EQ(handle("{\"msgType\": 700, \"code\": \"BadRequest\", \"message\": \"go away\"}"), 0);
    EXPECT_EQ(da.registered, 0);
    EXPECT_EQ(da.register_sent, 0);
    EXPECT_TRUE(was_logged("handle_orv_msg: MSG_REGISTER_FAILED received"));
    EXPECT_TRUE(was_logged("Registration failed with Orvanta code BadRequest msg go away"));
    EXPECT_EQ(txq, nullptr);
    EXPECT_EQ(ev_count_timers(), 1) << "REGISTER FAILED";
}

TEST_F(dispatcher_test, a_link_test_is_known_and_not_answered)
{
    handle("{\"msgType\": 119}");
    EXPECT_EQ(txq, nullptr);
    EXPECT_FALSE(was_logged("handle_orv_msg: UNKNOWN message 119 received from Orvanta"));
}

/* ---- levels ---- */

struct level_row {
    const char *request, *line;
    int level;
};

TEST_F(dispatcher_test, received_lines_have_their_levels)
{
    static const level_row rows[] = {
        {"106", "handle_orv_msg: MSG_CONFIG_UPDATE_REQUEST received", 3},
        {"107", "handle_orv_msg: MSG_CONFIG_PULL_REQUEST received", 3},
        {"107", "handle_orv_msg: MSG_CONFIG_PULL_REQUEST Complete", 2},
        {"108", "handle_orv_msg:MSG_MANAGED_INFO received", 3},
        {"111", "handle_orv_msg: MSG_RADIO_SCAN_REQUEST received", 3},
        {"112", "handle_orv_msg: MSG_LATENCY_TEST received", 3},
        {"102", "handle_orv_msg: MSG_REBOOT_CMD received", 2},
        {"102", "handle_orv_msg: MSG_REBOOT_CMD_REQUEST Complete", 2},
        {"115", "handle_orv_msg: MSG_LOCATE_CMD received", 2},
        {"117", "handle_orv_msg: MSG_INTVL_UPDATE_CMD_REQUEST received", 3},
        {"119", "handle_orv_msg: MSG_LINK_TEST_REQUEST received", 3},
        {"123", "handle_orv_msg:MSG_DEV_INFO_REQUEST received", 3},
        {"400", "handle_orv_msg: MSG_REGISTER_SUCCESS received", 2},
        {"416", "handle_orv_msg: Controller response message received", 3},
        {"697", "handle_orv_msg: MSG_ORVANTA_CONNECT_STATUS received", 3},
        {"700", "handle_orv_msg: MSG_REGISTER_FAILED received", 2},
        {"116", "handle_orv_msg: UNKNOWN message 116 received from Orvanta", 0},
    };
    for (const level_row &row : rows)
        for (int level : {0, 1, 2, 3}) {
            clear_log();
            da.debug_level = level;
            handle(std::string("{\"msgType\": ") + row.request + "}");
            EXPECT_EQ(was_logged(row.line), level >= row.level) << row.line << " at level " << level;
        }
}
