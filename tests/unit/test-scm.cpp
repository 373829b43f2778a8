#include "device/scm.h"

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/unit/scm-end.h"

/* ---- what goes out ---- */

TEST_F(scm_test, a_json_configuration)
{
    daemon_end daemon(ok_reply);
    EXPECT_EQ(outcome_of(config, 0), "(ok)");
    EXPECT_EQ(outcome_of(config, 1), "(ok)");
    EXPECT_EQ(outcome_of(config, 7), "(ok)");
    daemon.stop();
    std::string start = "{\"mType\":\"DEVICE-JSON-CONFIG\",\"overwrite\":";
    EXPECT_EQ(daemon.messages,
              (std::vector<std::string>{start + "0,\"config\":{\"a\":1}}", start + "1,\"config\":{\"a\":1}}",
                                        start + "1,\"config\":{\"a\":1}}"}));
    EXPECT_EQ(config->refcount, 1u) << "the caller's value is only read";
    EXPECT_TRUE(told.empty());
}

TEST_F(scm_test, a_native_configuration)
{
    json_ptr native(json_string("set a\n\"b\" 100%\n"));
    daemon_end daemon(ok_reply);
    EXPECT_EQ(text_of(scm_process_device_native_config(native.get(), 1)), "(ok)");
    daemon.stop();
    EXPECT_EQ(daemon.messages,
              std::vector<std::string>{"{\"mType\":\"DEVICE-NATIVE-CONFIG\",\"overwrite\":1,\"config\":"
                                       "\"set a\\n\\\"b\\\" 100%\\n\"}"});
}

TEST_F(scm_test, without_a_native_part_nothing_is_sent)
{
    EXPECT_EQ(text_of(scm_process_device_native_config(nullptr, 1)), "(ok)") << "though nobody is there";
    daemon_end daemon(ok_reply);
    EXPECT_EQ(text_of(scm_process_device_native_config(nullptr, 0)), "(ok)");
    daemon.stop();
    EXPECT_TRUE(daemon.messages.empty());
}

/* Order, big integers, reals, characters outside ASCII, empty keys, nesting: all as it came in. */
TEST_F(scm_test, values_and_order_pass_unchanged)
{
    std::string deep(1000, '['), end(1000, ']');
    std::string text = "{\"z\":9223372036854775807,\"a\":-9223372036854775808,\"m\":0.1,\"\":{\"\":[]},"
                       "\"big\":1.7976931348623157e308,\"tiny\":5e-324,\"third\":0.33333333333333331,"
                       "\"whole\":1.0,\"ß\":\"gr\\u00fc\\u00df \\ud83d\\ude00 \\u0001\\\\\\\"/\","
                       "\"none\":null,\"yes\":true,\"no\":false,\"b\":[3,1,2],\"deep\":" +
                       deep + end + "}";
    json_ptr value(json_loads(text.c_str(), 0, nullptr));
    ASSERT_TRUE(value);
    daemon_end daemon(ok_reply);
    EXPECT_EQ(outcome_of(value), "(ok)");
    daemon.stop();
    ASSERT_EQ(daemon.messages.size(), 1u);
    json_ptr message(json_loads(daemon.messages[0].c_str(), 0, nullptr));
    const json_t *arrived = json_object_get(message.get(), "config");
    EXPECT_EQ(json_equal(arrived, value.get()), 1);
    std::vector<std::string> before, after;
    const char *key;
    json_t *member;
    json_object_foreach(value.get(), key, member) before.push_back(key);
    json_object_foreach(const_cast<json_t *>(arrived), key, member) after.push_back(key);
    EXPECT_EQ(after, before);
    EXPECT_EQ(before.size(), 14u);
}

TEST_F(scm_test, one_value)
{
    daemon_end daemon(ok_reply);
    EXPECT_EQ(scm_process_config_set_item("zapd_start_stop", "true"), 0);
    daemon.stop();
    EXPECT_EQ(daemon.messages,
              std::vector<std::string>{
                  "{\"mType\":\"CONFIG-SET\",\"name\":\"zapd_start_stop\",\"value\":\"true\"}"});
}

TEST_F(scm_test, one_value_that_is_refused)
{
    daemon_end daemon(frame("{\"status\":\"error\",\"error\":\"no such item\"}"));
    EXPECT_EQ(scm_process_config_set_item("a", "b"), -1);
    EXPECT_EQ(told, std::vector<std::string>{"no such item"});
    EXPECT_EQ(scm_process_config_set_item("a", "\xFF"), -1);
    EXPECT_EQ(scm_process_config_set_item("a", nullptr), -1);
    daemon.stop();
    EXPECT_EQ(daemon.messages.size(), 1u) << "what cannot be encoded is not sent";
}

TEST_F(scm_test, a_message_without_payload_and_its_answer)
{
    malloc_text message(scm_build_msg_no_payload("CONFIG-APPLY"));
    EXPECT_STREQ(message.get(), "{\"mType\":\"CONFIG-APPLY\"}");
    daemon_end daemon(frame("whatever it says"));
    malloc_text reply(scm_send_and_recv(message.get()));
    EXPECT_STREQ(reply.get(), "whatever it says");
    daemon.stop();
    EXPECT_EQ(daemon.messages, std::vector<std::string>{"{\"mType\":\"CONFIG-APPLY\"}"});
    EXPECT_EQ(scm_build_msg_no_payload(nullptr), nullptr);
    EXPECT_EQ(scm_send_and_recv(nullptr), nullptr);
    EXPECT_EQ(scm_send_and_recv("nobody there any more"), nullptr);
}

/* ---- what comes back ---- */

struct reply_row {
    const char *reply, *error;
};

TEST_F(scm_test, answers)
{
    static const reply_row rows[] = {
        {"{\"status\":\"ok\"}", "(ok)"},
        {" {\"status\": \"ok\", \"more\": 1}\n", "(ok)"},
        {"{\"status\":\"error\",\"error\":\"radio 3 unknown\"}", "radio 3 unknown"},
        {"{\"error\":\"100%s %n\",\"status\":\"error\"}", "100%s %n"},
        {"{\"status\":\"error\"}", "Configuration daemon reported an error"},
        {"{\"status\":\"error\",\"error\":\"\"}", "Configuration daemon reported an error"},
        {"{\"status\":\"error\",\"error\":17}", "Configuration daemon reported an error"},
        {"{\"status\":\"error\",\"error\":\"\\u0000x\"}", "Configuration daemon reported an error"},
        {"", invalid},
        {"not JSON", invalid},
        {"{\"status\":\"ok\"", invalid},
        {"{\"status\":\"ok\"}}", invalid},
        {"[\"ok\"]", invalid},
        {"\"ok\"", invalid},
        {"{}", invalid},
        {"{\"status\":0}", invalid},
        {"{\"status\":\"OK\"}", invalid},
        {"{\"status\":\"busy\",\"error\":\"later\"}", invalid},
        {"{\"error\":\"no status\"}", invalid},
        {"{\"status\":\"error\",\"error\":\"caf\xE9 closed\"}", "caf? closed"},
        {"{\"status\":\"error\",\"error\":\"gr\xC3\xBC\xC3\x9F \xE2\x82\"}", "gr???? ??"},
        {"{\"status\":\"ok\",\"note\":\"\xFF\"}", "(ok)"},
        {"\xFF\xFE", invalid},
    };
    for (const reply_row &row : rows) {
        EXPECT_EQ(text_of(scm_parse_action_rsp(row.reply)), row.error) << row.reply;
        daemon_end daemon(frame(row.reply));
        EXPECT_EQ(outcome_of(config), row.error) << row.reply;
    }
    EXPECT_EQ(text_of(scm_parse_action_rsp(nullptr)), not_available);
    EXPECT_EQ(std::count(told.begin(), told.end(), invalid), 24) << "twelve kinds, each twice";
}

TEST_F(scm_test, an_error_text_of_a_megabyte_is_cut)
{
    daemon_end daemon(frame("{\"status\":\"error\",\"error\":\"" + std::string(1 << 20, 'e') + "\"}"));
    EXPECT_EQ(outcome_of(config), std::string(SCM_ERROR_LENGTH, 'e'));
}

TEST_F(scm_test, an_error_text_is_cut_between_characters)
{
    for (size_t before : {1020u, 1021u, 1022u, 1023u}) {
        std::string text = std::string(before, 'e') + "\xF0\x9F\x98\x80!";
        std::string reply = "{\"status\":\"error\",\"error\":\"" + text + "\"}";
        EXPECT_EQ(text_of(scm_parse_action_rsp(reply.c_str())), std::string(before, 'e')) << before;
    }
    std::string exact = std::string(1019, 'e') + "\xF0\x9F\x98\x80";
    std::string reply = "{\"status\":\"error\",\"error\":\"" + exact + "\"}";
    EXPECT_EQ(text_of(scm_parse_action_rsp(reply.c_str())), exact);
}
