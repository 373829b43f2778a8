#include "protocol/register.h"

#include <string>
#include <vector>

#include <unistd.h>

#include "agent/owners.h"
#include "platform/config-version.h"
#include "protocol/error-codes.h"
#include "tests/unit/connection-test.h"
#include "tests/unit/fake-device.h"
#include "tests/unit/queued.h"

static std::vector<std::string> calls;

class register_test : public connection_test {
protected:
    void SetUp() override
    {
        connection_test::SetUp();
        device = fake_device();
        calls.clear();
        setenv("TZ", "UTC0", 1);
        clear_recorded("date");
        da.state = DA_STATE_CONNECTED;
        write_file("/tmp/session_id", "123456789");
        write_file(CONFVER_FILE, "17\n");
    }
    void TearDown() override
    {
        da.state = DA_STATE_IDLE;
        (void)unlink(CONFVER_FILE);
        connection_test::TearDown();
    }
};

static void know_everything(void)
{
    device_info &info = da.dev_info;
    snprintf(info.eth_mac_addr, sizeof(info.eth_mac_addr), "02:4f:56:00:00:01");
    snprintf(info.parent_mac, sizeof(info.parent_mac), "02:4F:56:AA:BB:CC");
    snprintf(info.serial_number, sizeof(info.serial_number), "SN-0042");
    snprintf(info.product_name, sizeof(info.product_name), "Strata SA");
    snprintf(info.sw_version, sizeof(info.sw_version), "11.0.1-5");
    snprintf(info.other_sw_version, sizeof(info.other_sw_version), "10.9.9-1");
    snprintf(info.hw_version, sizeof(info.hw_version), "6");
}

/* ---- the message ---- */

TEST_F(register_test, register_is_exact)
{
    know_everything();
    EXPECT_EQ(build_and_send_register(), 0);
    std::string text =
        "{\"msgType\": 100, \"sessId\": 123456789, \"mac\": \"02:4f:56:00:00:01\", "
        "\"pMAC\": \"02:4F:56:AA:BB:CC\", \"serialNo\": \"SN-0042\", \"type\": \"Quill\", "
        "\"model\": \"SA\", \"productName\": \"Strata SA\", \"hostname\": \"ap-7\", "
        "\"ipAddress\": \"192.0.2.7\", \"mode\": \"wi-fi\", \"configVersion\": 17, "
        "\"activeSwVersion\": \"11.0.1-5\", \"inActiveSwVersion\": \"10.9.9-1\", "
        "\"hwVersion\": \"6\", \"daVersion\": \"2.78\", \"swUpdateState\": 0, \"lumira\": true}";
    EXPECT_EQ(take_one_queued(), text);
    EXPECT_TRUE(was_logged("hostname [ap-7]"));
    EXPECT_TRUE(was_logged("dev_ip [192.0.2.7]"));
    EXPECT_TRUE(was_logged_beginning(
        "build_and_send_register: JSON Object: [{\"msgType\": 100, \"sessId\": 123456789, "));
}

TEST_F(register_test, a_device_that_knows_nothing_registers_too)
{
    device.sku = 0;
    device.model = "";
    device.ip_address = "";
    device.host_name = "";
    da.dev_info = {};
    (void)unlink(CONFVER_FILE);
    EXPECT_EQ(build_and_send_register(), 0);
    EXPECT_EQ(
        take_one_queued(),
        "{\"msgType\": 100, \"sessId\": 123456789, \"mac\": \"\", \"pMAC\": \"\", \"serialNo\": \"\", "
        "\"type\": \"Heron\", \"model\": \"Lattice\", \"productName\": \"\", \"hostname\": \"\", "
        "\"ipAddress\": \"\", \"mode\": \"wi-fi\", \"configVersion\": -1, \"activeSwVersion\": \"\", "
        "\"inActiveSwVersion\": \"\", \"hwVersion\": \"\", \"daVersion\": \"2.78\", \"swUpdateState\": 0, "
        "\"lumira\": true}");
}

TEST_F(register_test, the_address_is_looked_up_for_each_register)
{
    build_and_send_register();
    EXPECT_STREQ(da.dev_info.ip_addr, "192.0.2.7");
    device.ip_address = "198.51.100.9";
    take_queued();
    build_and_send_register();
    EXPECT_NE(take_one_queued().find("\"ipAddress\": \"198.51.100.9\""), std::string::npos);
    EXPECT_STREQ(da.dev_info.ip_addr, "198.51.100.9");
}

TEST_F(register_test, two_registers_of_one_boot_carry_the_same_session_id)
{
    (void)unlink("/tmp/session_id");
    build_and_send_register();
    std::string first = take_one_queued();
    build_and_send_register();
    EXPECT_EQ(take_one_queued(), first);
    std::string id = file_text("/tmp/session_id");
    EXPECT_NE(first.find("\"sessId\": " + id + ", "), std::string::npos);
    bool differs = false;
    for (int i = 0; i < 5 && !differs; i++) {
        (void)unlink("/tmp/session_id");
        build_and_send_register();
        differs = take_one_queued() != first;
    }
    EXPECT_TRUE(differs) << "a new one is drawn after the file was deleted";
}

TEST_F(register_test, without_a_session_id_register_is_sent_with_minus_1)
{
    (void)unlink("/tmp/session_id");
    ASSERT_EQ(symlink("/tmp/session_id", "/tmp/session_id"), 0);
    EXPECT_EQ(build_and_send_register(), 0);
    EXPECT_NE(take_one_queued().find("\"msgType\": 100, \"sessId\": -1, "), std::string::npos);
}

TEST_F(register_test, a_running_download_ends_after_its_state_was_read)
{
    hooks.sw_update_state = [] {
        calls.push_back("sw_update_state");
        return int32_t{4};
    };
    hooks.stop_fw_dl_process = [] { calls.push_back("stop_fw_dl_process"); };
    build_and_send_register();
    EXPECT_EQ(calls, (std::vector<std::string>{"sw_update_state", "stop_fw_dl_process"}));
    EXPECT_NE(take_one_queued().find("\"swUpdateState\": 4, \"lumira\": true}"), std::string::npos);
}

TEST_F(register_test, without_a_connection_it_fails)
{
    da.state = DA_STATE_CONNECTING;
    EXPECT_EQ(build_and_send_register(), -1);
}

/* ---- the answer ---- */

static int answer(int32_t msgType, const char *text)
{
    json_ptr obj(json_loads(text, 0, nullptr));
    return parse_register_response(msgType, obj.get(), error_string);
}

using times = std::vector<std::string>; /* what date(1) was told, call by call */

TEST_F(register_test, a_device_without_ntp_takes_the_controllers_time)
{
    EXPECT_EQ(answer(400, "{\"msgType\": 400, \"orvTime\": 1700000000}"), 0);
    EXPECT_EQ(recorded("date"), times{"2023.11.14-22:13:20"});
    EXPECT_TRUE(was_logged("parse_register_response: set device time"));
    clear_recorded("date");
    EXPECT_EQ(answer(400, "{\"orvTime\": 5000000000}"), 0);
    EXPECT_EQ(recorded("date"), times{"2128.06.11-08:53:20"}) << "64 bits";
}

TEST_F(register_test, a_device_with_ntp_keeps_its_own_clock)
{
    device.items["ntp_server"] = "pool.ntp.example";
    EXPECT_EQ(answer(400, "{\"orvTime\": 1700000000}"), 0);
    EXPECT_EQ(recorded("date"), times{});
    EXPECT_FALSE(was_logged("parse_register_response: set device time"));
    device.items["ntp_server"] = "";
    EXPECT_EQ(answer(400, "{\"orvTime\": 1700000000}"), 0);
    EXPECT_EQ(recorded("date"), times{"2023.11.14-22:13:20"}) << "an empty item is none";
}

TEST_F(register_test, an_answer_without_a_time_leaves_the_clock_alone)
{
    for (const char *text :
         {"{\"orvTime\": 0}", "{}", "{\"orvTime\": \"1700000000\"}", "{\"orvTime\": 1.5}"}) {
        EXPECT_EQ(answer(400, text), 0);
        EXPECT_EQ(recorded("date"), times{}) << text;
    }
}

TEST_F(register_test, a_refusal_is_logged)
{
    EXPECT_EQ(answer(700, "{\"code\": \"DeviceNotFound\", \"message\": \"no such device\"}"), 0);
    EXPECT_TRUE(was_logged("Registration failed with Orvanta code DeviceNotFound msg no such device"));
    EXPECT_EQ(answer(700, "{\"code\": 5}"), 0);
    EXPECT_TRUE(was_logged("Registration failed with Orvanta code  msg "));
}

TEST_F(register_test, a_refusal_without_an_object)
{
    EXPECT_EQ(parse_register_response(700, nullptr, error_string), 1);
    EXPECT_STREQ(error_string, "Not able to parse register json response from orv server NG");
    EXPECT_TRUE(was_logged("Not able to parse register json response from orv server NG"));
}
