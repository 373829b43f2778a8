#include "protocol/message.h"

#include <climits>
#include <cstring>
#include <string>

#include "protocol/error-codes.h"
#include "tests/unit/connection-test.h"
#include "tests/unit/queued.h"

class message_test : public connection_test {
protected:
    void SetUp() override
    {
        connection_test::SetUp();
        da.state = DA_STATE_CONNECTED;
    }
    void TearDown() override
    {
        da.state = DA_STATE_IDLE;
        connection_test::TearDown();
    }
};

TEST_F(message_test, members_stand_in_the_order_they_were_added)
{
    json_ptr message = new_message(404);
    add_text(message, "z", "last letter");
    add_integer(message, "a", 5000000000);
    add_text(message, "m", nullptr);
    EXPECT_STREQ(dump_message(message, "test").get(),
                 "{\"msgType\": 404, \"z\": \"last letter\", \"a\": 5000000000, \"m\": \"\"}");
}

TEST_F(message_test, a_text_that_is_not_utf8_keeps_its_member)
{
    json_ptr message = new_message(1);
    add_text(message, "name", "caf\xE9 \xC3\xA9 \xFF");
    EXPECT_STREQ(dump_message(message, "test").get(),
                 "{\"msgType\": 1, \"name\": \"caf\xEF\xBF\xBD \xC3\xA9 \xEF\xBF\xBD\"}");
}

TEST_F(message_test, special_characters_are_escaped)
{
    json_ptr message = new_message(1);
    add_text(message, "t", "a\"b\\c\nd\x01");
    EXPECT_STREQ(dump_message(message, "test").get(), "{\"msgType\": 1, \"t\": \"a\\\"b\\\\c\\nd\\u0001\"}");
}

TEST_F(message_test, what_cannot_be_serialised_is_told)
{
    malloc_text text = dump_message(nullptr, "build_and_send_register");
    EXPECT_EQ(text, nullptr);
    EXPECT_TRUE(was_logged("json dump failed build_and_send_register"));
    EXPECT_EQ(queue_text(text), -1);
    EXPECT_EQ(txq, nullptr);
}

TEST_F(message_test, failure_replies_are_exact)
{
    EXPECT_EQ(send_failure_msg(703, 1, "Received stop stats request without index"), 0);
    EXPECT_EQ(take_one_queued(), "{\"msgType\": 703, \"code\": \"BadRequest\", \"message\": "
                                 "\"Received stop stats request without index\"}");
}

struct code_row {
    int status;
    const char *name;
};

TEST_F(message_test, each_status_has_its_name)
{
    static const code_row rows[] = {
        {0, "No ERROR"},
        {1, "BadRequest"},
        {2, "DeviceNotFound"},
        {3, "FwUpdateInProgress"},
        {4, "OutOfRangeInput"},
        {5, "InvalidInput"},
        {6, "InvalidMessageType"},
        {7, "InternalError"},
        {8, "OperationTimedOut"},
        {9, "ServerBusy"},
        {10, "UploadInProgress"},
        /* outside the table */
        {11, "BadRequest"},
        {-1, "BadRequest"},
        {INT_MAX, "BadRequest"},
        {INT_MIN, "BadRequest"},
    };
    for (const code_row &row : rows) {
        send_failure_msg(701, row.status, "");
        EXPECT_EQ(take_one_queued(),
                  std::string("{\"msgType\": 701, \"code\": \"") + row.name + "\", \"message\": \"\"}")
            << row.status;
    }
}

TEST_F(message_test, success_replies_are_exact)
{
    EXPECT_EQ(send_success_msg(402), 0);
    EXPECT_EQ(take_one_queued(), "{\"msgType\": 402}");
}

TEST_F(message_test, without_a_connection_replies_fail)
{
    da.state = DA_STATE_IDLE;
    EXPECT_EQ(send_failure_msg(703, 1, "text"), -1);
    EXPECT_EQ(send_success_msg(402), -1);
    EXPECT_EQ(txq, nullptr);
}

TEST_F(message_test, error_texts_are_bounded)
{
    std::string text(3000, 'e');
    memset(error_string, 'x', sizeof(error_string));
    set_error_text(error_string, "%s", text.c_str());
    EXPECT_EQ(std::string(error_string), std::string(1023, 'e'));
    EXPECT_EQ(error_string[1024], 'x');
    set_error_text(error_string, "json dump failed %s", "me");
    EXPECT_STREQ(error_string, "json dump failed me");
}
