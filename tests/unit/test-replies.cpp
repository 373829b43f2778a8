#include "protocol/replies.h"

#include <ctime>
#include <string>

#include "agent/owners.h"
#include "platform/config-version.h"
#include "protocol/error-codes.h"
#include "tests/unit/connection-test.h"
#include "tests/unit/queued.h"

class replies_test : public connection_test {
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

struct status_row {
    int32_t msgType;
    const char *command, *message;
};

TEST_F(replies_test, the_status_of_a_command_by_type)
{
    static const status_row rows[] = {
        {409, "disconnect-clients",
         "{\"msgType\": 409, \"command\": \"disconnect-clients\", \"status\": \"Complete\"}"},
        {409, "ping", "{\"msgType\": 409, \"command\": \"ping\", \"status\": \"Initiated\"}"},
        {409, "disconnect-clients ",
         "{\"msgType\": 409, \"command\": \"disconnect-clients \", \"status\": \"Initiated\"}"},
        {410, "ping", "{\"msgType\": 410, \"command\": \"ping\", \"status\": \"Completed\"}"},
        {709, "ping",
         "{\"msgType\": 709, \"command\": \"ping\", \"code\": \"InternalError\", \"message\": "
         "\"Execution failed\"}"},
        {710, "ping",
         "{\"msgType\": 710, \"command\": \"ping\", \"code\": \"InternalError\", \"message\": "
         "\"cmd abort failed\"}"},
        {411, "ping", "{\"msgType\": 411, \"command\": \"ping\"}"},
    };
    for (const status_row &row : rows) {
        EXPECT_EQ(send_cmd_execution_abort_status(row.msgType, row.command), 0);
        EXPECT_EQ(take_one_queued(), row.message);
        EXPECT_TRUE(was_logged(std::string("Sending_cmd_status send_cmd_execution_abort_status  cmdName ") +
                               row.command + " msgType " + std::to_string(row.msgType)));
    }
}

TEST_F(replies_test, without_a_command_name_nothing_is_sent)
{
    EXPECT_EQ(send_cmd_execution_abort_status(409, nullptr), -1);
    EXPECT_EQ(txq, nullptr);
    EXPECT_TRUE(was_logged(" Returning as cmdName is not allocated  send_cmd_execution_abort_status  "
                           "cmdName (null) msgType 409"));
}

TEST_F(replies_test, an_upgrade_failure_has_a_code_and_progress_a_status)
{
    for (auto *build : {build_and_send_upgrade_response, build_and_send_sw_update_state}) {
        clear_log();
        EXPECT_EQ(build(701, "DownloadFailed", "SW update file download failed"), 0);
        std::string failure = "{\"msgType\": 701, \"code\": \"DownloadFailed\", \"message\": "
                              "\"SW update file download failed\"}";
        EXPECT_EQ(take_one_queued(), failure);
        EXPECT_EQ(was_logged("build_and_send_sw_update_state: JSON Object: [" + failure + "]"),
                  build == build_and_send_sw_update_state);
        EXPECT_EQ(build(401, "DownloadFailed", "text"), 0);
        EXPECT_EQ(take_one_queued(),
                  "{\"msgType\": 401, \"status\": \"DownloadFailed\", \"message\": \"text\"}");
    }
}

TEST_F(replies_test, the_status_of_a_configuration_update)
{
    EXPECT_EQ(write_config_status_to_orv(406, "Complete", "Configuration applied successfully"), 0);
    EXPECT_EQ(take_one_queued(), "{\"msgType\": 406, \"status\": \"Complete\", \"message\": "
                                 "\"Configuration applied successfully\"}");
}

TEST_F(replies_test, a_configuration_is_taken_over)
{
    char error_text[ERROR_STRING_SIZE] = "";
    EXPECT_EQ(send_config_to_orv(json_pack("{s:i,s:s}", "z", 1, "a", "b"), error_text), 0);
    EXPECT_EQ(take_one_queued(), "{\"msgType\": 407, \"config\": {\"z\": 1, \"a\": \"b\"}}");
    EXPECT_STREQ(error_text, "");
}

TEST_F(replies_test, a_configuration_that_cannot_be_serialised_is_an_internal_error)
{
    char error_text[ERROR_STRING_SIZE] = "";
    EXPECT_EQ(send_config_to_orv(nullptr, error_text), 7);
    EXPECT_STREQ(error_text, "json dump failed");
    EXPECT_TRUE(was_logged("json dump failed"));
    EXPECT_EQ(txq, nullptr);
}

TEST_F(replies_test, a_local_change_tells_the_version)
{
    write_file(CONFVER_FILE, "17");
    EXPECT_EQ(build_and_send_cfg_change_notify(), 0);
    EXPECT_EQ(take_one_queued(), "{\"msgType\": 698, \"configVersion\": 17}");
    EXPECT_TRUE(was_logged("build_and_send_cfg_change_notify: JSON Object: "
                           "[{\"msgType\": 698, \"configVersion\": 17}]"));
}

TEST_F(replies_test, a_trap_goes_out_only_while_registered)
{
    EXPECT_EQ(build_and_send_trap_info("Alarm", "too hot", json_integer(5)), -1);
    EXPECT_EQ(txq, nullptr);
    da.registered = 1;
    time_t before = time(nullptr);
    EXPECT_EQ(build_and_send_trap_info("Alarm", "too hot", json_pack("{s:i}", "celsius", 90)), 0);
    json_ptr trap(json_loads(take_one_queued().c_str(), 0, nullptr));
    ASSERT_NE(trap, nullptr);
    time_t at = json_integer_value(json_object_get(trap.get(), "eTime"));
    EXPECT_TRUE(before <= at && at <= time(nullptr)) << at;
    malloc_text text(json_dumps(trap.get(), JSON_PRESERVE_ORDER));
    EXPECT_EQ(std::string(text.get()),
              "{\"msgType\": 699, \"eId\": \"Alarm\", \"eTime\": " + std::to_string(at) +
                  ", \"desc\": \"too hot\", \"varPayload\": {\"celsius\": 90}}");
}

TEST_F(replies_test, a_trap_without_payload_has_three_members)
{
    da.registered = 1;
    EXPECT_EQ(build_and_send_trap_info("Alarm", "too hot", nullptr), 0);
    json_ptr trap(json_loads(take_one_queued().c_str(), 0, nullptr));
    EXPECT_EQ(json_object_size(trap.get()), 4u) << "and the type";
    EXPECT_EQ(json_object_get(trap.get(), "varPayload"), nullptr);
}
