#include "protocol/device-info.h"

#include <string>

#include <unistd.h>

#include "protocol/error-codes.h"
#include "tests/unit/connection-test.h"
#include "tests/unit/fake-device.h"
#include "tests/unit/queued.h"

class device_info_test : public connection_test {
protected:
    void SetUp() override
    {
        connection_test::SetUp();
        device = fake_device();
        da.state = DA_STATE_CONNECTED;
    }
    void TearDown() override
    {
        da.state = DA_STATE_IDLE;
        connection_test::TearDown();
    }
};

TEST_F(device_info_test, both_reasons_and_the_uptime)
{
    write_file(LAST_CLOSE_REASON_FILE, "1700000000:DEV_PING_TIMEOUT");
    write_file(LAST_REBOOT_REASON_FILE, "1699999999:power:failure\n");
    device.uptime = 86400;
    EXPECT_EQ(build_and_send_dev_info(error_string), 0);
    std::string text =
        "{\"msgType\": 423, \"lastCloseReason\": \"DEV_PING_TIMEOUT\", \"lastCloseTS\": 1700000000, "
        "\"lastRebootReason\": \"power:failure\", \"lastRebootTS\": 1699999999, \"uptime\": 86400}";
    EXPECT_EQ(take_one_queued(), text);
    EXPECT_TRUE(was_logged("build_and_send_dev_info: JSON Object: [" + text + "]"));
}

TEST_F(device_info_test, the_close_reason_is_reported_once)
{
    write_file(LAST_CLOSE_REASON_FILE, "1700000000:DEV_REBOOT");
    write_file(LAST_REBOOT_REASON_FILE, "1700000001:button");
    build_and_send_dev_info(error_string);
    take_queued();
    EXPECT_FALSE(path_exists(LAST_CLOSE_REASON_FILE));
    EXPECT_TRUE(path_exists(LAST_REBOOT_REASON_FILE));
    build_and_send_dev_info(error_string);
    EXPECT_EQ(take_one_queued(),
              "{\"msgType\": 423, \"lastCloseReason\": \"\", \"lastCloseTS\": 0, "
              "\"lastRebootReason\": \"button\", \"lastRebootTS\": 1700000001, \"uptime\": 4242}");
}

TEST_F(device_info_test, a_new_closure_in_between_is_reported)
{
    save_reason(LAST_CLOSE_REASON_FILE, "FIRST");
    build_and_send_dev_info(error_string);
    take_queued();
    save_reason(LAST_CLOSE_REASON_FILE, "SECOND");
    build_and_send_dev_info(error_string);
    EXPECT_NE(take_one_queued().find("\"lastCloseReason\": \"SECOND\""), std::string::npos);
}

TEST_F(device_info_test, without_any_reason)
{
    build_and_send_dev_info(error_string);
    EXPECT_EQ(take_one_queued(), "{\"msgType\": 423, \"lastCloseReason\": \"\", \"lastCloseTS\": 0, "
                                 "\"lastRebootReason\": \"\", \"lastRebootTS\": 0, \"uptime\": 4242}");
}

TEST_F(device_info_test, a_reason_of_any_bytes_and_length)
{
    write_file(LAST_REBOOT_REASON_FILE, "1:\xFF" + std::string(200, 'r'));
    build_and_send_dev_info(error_string);
    EXPECT_NE(take_one_queued().find("\"lastRebootReason\": \"\xEF\xBF\xBD" + std::string(128, 'r') + "\""),
              std::string::npos);
}

TEST_F(device_info_test, without_a_connection_it_fails_with_a_text)
{
    da.state = DA_STATE_IDLE;
    error_string[0] = '\0';
    EXPECT_EQ(build_and_send_dev_info(error_string), -1);
    EXPECT_STRNE(error_string, "") << "the dispatcher would send the text of an earlier failure";
}
