#include "protocol/wifid-payload.h"

#include <string>
#include <vector>

#include "agent/owners.h"
#include "tests/unit/connection-test.h"
#include "tests/unit/fake-device.h"
#include "tests/unit/queued.h"
#include "tests/unit/wifid-end.h"

class wifid_payload : public connection_test {
protected:
    void SetUp() override
    {
        connection_test::SetUp();
        device = fake_device();
        write_file("/tmp/session_id", "77");
        da.state = DA_STATE_CONNECTED;
    }
    void TearDown() override
    {
        da.state = DA_STATE_IDLE;
        connection_test::TearDown();
    }
};

static json_ptr json_of(const std::string &text)
{
    return json_ptr(json_loads(text.c_str(), JSON_DECODE_ANY | JSON_ALLOW_NUL, nullptr));
}

/* As they are written: what is read and written again must look the same. */
static const char *const values[] = {
    "{}",
    "[]",
    "{\"z\": 1, \"a\": [true, false, null], \"m\": {\"z\": \"\", \"a\": -1}, \"b\": 2}",
    "[1, \"two\", 3.25, [], {}, [[[]]]]",
    "\"text\"",
    "\"\"",
    "5",
    "-9223372036854775808",
    "9223372036854775807",
    "1.5000000000000001e300",
    "-0.0",
    "true",
    "false",
    "null",
    "\"\\u0000 \\\" \\\\ \\n \u00e9 \U0001F600\"",
    "{\"\": {\"msgType\": 999}, \"ctrlrPayload\": null, \"%s%n\": \"%d\"}",
};

TEST_F(wifid_payload, a_payload_is_wrapped_exactly)
{
    json_ptr payload = json_of("{\"b\": 1, \"a\": [2]}");
    EXPECT_EQ(msg_to_controller(payload.get()), 0);
    std::string expected = "{\"sessId\": 77, \"ap_mac\": \"02:4F:56:00:00:01\", \"msgType\": 116, "
                           "\"ctrlrPayload\": {\"b\": 1, \"a\": [2]}}";
    EXPECT_EQ(take_one_queued(), expected);
    EXPECT_TRUE(was_logged("msg_to_controller: JSON Object:[" + std::to_string(expected.size()) + "][" +
                           expected + "]"));
    EXPECT_EQ(payload->refcount, 1u) << "it stays the caller's";
}

TEST_F(wifid_payload, a_registration_is_wrapped_exactly)
{
    json_ptr payload = json_of("{\"radios\": 2}");
    EXPECT_EQ(register_msg_to_controller(payload.get()), 0);
    std::string expected = "{\"sessId\": 77, \"ap_mac\": \"02:4F:56:00:00:01\", \"type\": \"Quill\", "
                           "\"msgType\": 118, \"ctrlrPayload\": {\"radios\": 2}}";
    EXPECT_EQ(take_one_queued(), expected);
    EXPECT_TRUE(was_logged("register_msg_to_controller: JSON Object:[" + std::to_string(expected.size()) +
                           "][" + expected + "]"));
    EXPECT_EQ(payload->refcount, 1u);
}

TEST_F(wifid_payload, every_value_passes_unchanged_to_the_controller)
{
    for (const char *value : values) {
        json_ptr payload = json_of(value);
        ASSERT_NE(payload, nullptr) << value;
        EXPECT_EQ(msg_to_controller(payload.get()), 0);
        std::string text = take_one_queued();
        std::string start = "\"ctrlrPayload\": ";
        EXPECT_EQ(text.substr(text.find(start) + start.size()), std::string(value) + "}");
    }
}

TEST_F(wifid_payload, every_value_passes_unchanged_to_the_daemon)
{
    wifid_end end;
    for (const char *value : values) {
        json_ptr message(json_object());
        json_object_set_new(message.get(), "ctrlrPayload",
                            json_loads(value, JSON_DECODE_ANY | JSON_ALLOW_NUL, nullptr));
        EXPECT_EQ(handle_controller_rsp(message.get()), 0) << value;
        EXPECT_EQ(end.receive(), std::string(1, '\0') + value);
        EXPECT_TRUE(was_logged("handle_controller_rsp: JSON Object:[" +
                               std::to_string(std::string(value).size()) + "][" + value + "]"))
            << value;
    }
}

TEST_F(wifid_payload, an_answer_without_a_payload_is_told_whole)
{
    wifid_end end;
    json_ptr message = json_of("{\"msgType\": 416, \"payload\": {\"a\": 1}}");
    EXPECT_EQ(handle_controller_rsp(message.get()), -1);
    EXPECT_TRUE(was_logged("no ctrlr payload in controller response{\"msgType\": 416, \"payload\": "
                           "{\"a\": 1}}"));
    EXPECT_EQ(end.receive(), "(nothing)");
}

TEST_F(wifid_payload, an_answer_without_a_daemon_fails)
{
    json_ptr message = json_of("{\"msgType\": 416, \"ctrlrPayload\": 1}");
    EXPECT_EQ(handle_controller_rsp(message.get()), -1);
    EXPECT_TRUE(was_logged(
        "Failed to send message to /var/tmp/device_agent_to_wifid_msgs:No such file or directory"));
}

TEST_F(wifid_payload, without_a_connection_nothing_is_queued)
{
    da.state = DA_STATE_DISCONNECTED;
    json_ptr payload = json_of("{}");
    EXPECT_EQ(msg_to_controller(payload.get()), -1);
    EXPECT_EQ(register_msg_to_controller(payload.get()), -1);
    EXPECT_EQ(txq, nullptr);
}
