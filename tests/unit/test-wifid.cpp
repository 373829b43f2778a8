#include "platform/wifid.h"

#include <filesystem>

#include <gtest/gtest.h>

#include "tests/unit/support.h"
#include "tests/unit/wifid-end.h"

class wifid : public testing::Test {
protected:
    void SetUp() override
    {
        fresh_agent();
        controller_connected = 0;
        std::filesystem::remove(TO_WIFID_SOCKET);
    }
};

TEST_F(wifid, a_datagram_is_the_first_byte_and_the_text)
{
    wifid_end end;
    const char text[] = "{\"a\": 1}trailing";
    EXPECT_EQ(send_msg_to_wifid(TO_WIFID_SOCKET, WIFID_CONTROLLER_PAYLOAD, text, 8), 0);
    EXPECT_EQ(end.receive(), std::string("\0{\"a\": 1}", 9)) << "and no NUL behind it";
    EXPECT_TRUE(logged().empty());
}

TEST_F(wifid, the_state_is_remembered_and_sent)
{
    wifid_end end;
    send_controller_connected_state_update_to_wifid(1);
    EXPECT_EQ(controller_connected, 1);
    EXPECT_EQ(end.receive(), "\2{\"status\": 1}");
    send_controller_connected_state_update_to_wifid(0);
    EXPECT_EQ(controller_connected, 0);
    EXPECT_EQ(end.receive(), "\2{\"status\": 0}");
}

TEST_F(wifid, without_the_daemon_the_message_is_dropped_with_a_line)
{
    EXPECT_EQ(send_msg_to_wifid(TO_WIFID_SOCKET, 0, "x", 1), -1);
    EXPECT_TRUE(was_logged(
        "Failed to send message to /var/tmp/device_agent_to_wifid_msgs:No such file or directory"));
    send_controller_connected_state_update_to_wifid(1);
    EXPECT_EQ(controller_connected, 1) << "remembered all the same";
}

TEST_F(wifid, a_daemon_that_does_not_read_does_not_block)
{
    wifid_end end;
    int sent = 0;
    while (sent < 100000 && send_msg_to_wifid(TO_WIFID_SOCKET, 0, "x", 1) == 0)
        sent++;
    ASSERT_LT(sent, 100000) << "the queue never filled";
    EXPECT_TRUE(was_logged("Failed to send message to /var/tmp/device_agent_to_wifid_msgs:"
                           "Resource temporarily unavailable"));
}

TEST_F(wifid, a_path_too_long_for_a_socket_fails)
{
    std::string path = "/var/tmp/" + std::string(200, 'p');
    EXPECT_EQ(send_msg_to_wifid(path.c_str(), 0, "x", 1), -1);
    EXPECT_TRUE(was_logged("Failed to send message to " + path + ":File name too long"));
}

TEST_F(wifid, no_descriptor_is_left_open)
{
    wifid_end end;
    auto open_descriptors = [] {
        auto entries = std::filesystem::directory_iterator("/proc/self/fd");
        return std::distance(entries, std::filesystem::directory_iterator());
    };
    auto before = open_descriptors();
    (void)send_msg_to_wifid(TO_WIFID_SOCKET, 0, "x", 1);
    (void)send_msg_to_wifid("/var/tmp/absent", 0, "x", 1);
    EXPECT_EQ(open_descriptors(), before);
}
