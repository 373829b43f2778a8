#include "operations/wifid-listener.h"

#include <filesystem>
#include <string>

#include <sys/resource.h>
#include <sys/stat.h>

#include "tests/unit/connection-test.h"
#include "tests/unit/local-end.h"
#include "tests/unit/queued.h"
#include "tests/unit/wifid-end.h"

class wifid_listener : public connection_test {
protected:
    void SetUp() override
    {
        connection_test::SetUp();
        write_file("/tmp/session_id", "77");
        da.state = DA_STATE_CONNECTED;
        controller_connected = 1;
        device_agent_msg_from_wifid_callback_init();
        clear_log();
    }
    void TearDown() override
    {
        da.state = DA_STATE_IDLE;
        close_watched();
        free_place(FROM_WIFID_SOCKET);
        connection_test::TearDown();
    }

    /* Sends the agent a datagram and lets it be read. */
    static void say(const std::string &datagram)
    {
        local_end wifid(SOCK_DGRAM, FROM_WIFID_SOCKET);
        ASSERT_TRUE(wifid.say(datagram));
        ev_main();
    }
};

static const std::string payload_start =
    "{\"sessId\": 77, \"ap_mac\": \"02:4F:56:00:00:01\", \"msgType\": 116, \"ctrlrPayload\": ";

/* ---- the socket ---- */

TEST_F(wifid_listener, the_socket_is_a_datagram_socket_for_root_and_its_group)
{
    struct stat status = {};
    EXPECT_EQ(stat(FROM_WIFID_SOCKET, &status), 0);
    EXPECT_EQ(status.st_mode, S_IFSOCK | 0660u);
    EXPECT_STREQ(FROM_WIFID_SOCKET, "/var/tmp/wifid_to_device_agent_msgs");
    EXPECT_EQ(local_end(SOCK_STREAM, FROM_WIFID_SOCKET).fd, -1);
    EXPECT_EQ(errno, EPROTOTYPE);
    EXPECT_EQ(ev_count_fds(), 1);
}

using wifid_listener_death_test = wifid_listener;

TEST_F(wifid_listener_death_test, a_path_that_cannot_be_bound_ends_the_process)
{
    block_place(FROM_WIFID_SOCKET);
    EXPECT_DEATH(device_agent_msg_from_wifid_callback_init(), "device_agent_msg_from_wifid_callback_init");
    EXPECT_TRUE(was_logged("Bind failed with error (98:Address already in use)"));
}

TEST_F(wifid_listener_death_test, a_socket_that_cannot_be_had_ends_the_process)
{
    auto without_descriptors = [] {
        const struct rlimit none = {3, 3};
        (void)setrlimit(RLIMIT_NOFILE, &none);
        device_agent_msg_from_wifid_callback_init();
    };
    EXPECT_DEATH(without_descriptors(), "device_agent_msg_from_wifid_callback_init");
}

/* ---- what it says ---- */

TEST_F(wifid_listener, a_payload_goes_to_the_controller)
{
    say("\1{\"b\": 1,\"a\":[2 , 3]}");
    EXPECT_EQ(take_one_queued(), payload_start + "{\"b\": 1, \"a\": [2, 3]}}");
    EXPECT_TRUE(was_logged("Received msg dest[1] from wifid to be sent to controller;state[connected]"));
}

TEST_F(wifid_listener, values_that_are_no_object_pass_too)
{
    for (const char *value : {"5", "\"text\"", "null", "[1, 2]", "\"\\u0000\""}) {
        say(std::string("\1") + value);
        EXPECT_EQ(take_one_queued(), payload_start + value + "}");
    }
}

TEST_F(wifid_listener, a_registration_goes_to_a_connected_controller)
{
    wifid_end end;
    say("\2{\"radios\": 2}");
    EXPECT_NE(take_one_queued().find("\"msgType\": 118, \"ctrlrPayload\": {\"radios\": 2}}"),
              std::string::npos);
    EXPECT_EQ(end.receive(), "(nothing)");
}

TEST_F(wifid_listener, a_registration_before_the_connection_is_sent_back_to_wait)
{
    wifid_end end;
    controller_connected = 0;
    say("\2{\"radios\": 2}");
    EXPECT_EQ(end.receive(), "\2{\"status\": 0}");
    EXPECT_EQ(take_queued().size(), 0u) << "and is not forwarded, whatever the connection";
    EXPECT_TRUE(was_logged("Received msg dest[2] from wifid to be sent to controller;state[disconnected]"));
}

TEST_F(wifid_listener, other_first_bytes_are_unknown)
{
    for (int dest : {3, 0, 4, 123, 255}) {
        clear_log();
        say(std::string(1, static_cast<char>(dest)) + "{}");
        EXPECT_TRUE(was_logged("Unknown msg type [" + std::to_string(dest) + "] from wifid")) << dest;
        EXPECT_EQ(txq, nullptr) << dest;
    }
}

/* ---- what cannot be used ---- */

TEST_F(wifid_listener, an_empty_datagram_is_too_short)
{
    say("");
    EXPECT_TRUE(was_logged("Short message len 0 from daemon"));
    EXPECT_EQ(logged().size(), 1u);
}

TEST_F(wifid_listener, what_is_not_json_is_told_with_its_line)
{
    struct {
        const char *text;
        int line;
    } rows[] = {{"\1", 1},         {"\1hello", 1}, {"\1{\n\n\"a\": }", 3},    {"\1{} {}", 1},
                {"\1\xFF\xFE", 1}, {"\3{", 1},     {"\1{\"a\\u0000\": 1}", 1}};
    for (const auto &row : rows) {
        clear_log();
        say(row.text);
        EXPECT_TRUE(
            was_logged_beginning("Unable to load JSON ,error  on line " + std::to_string(row.line) + ": "))
            << row.text;
        EXPECT_EQ(logged().size(), 1u) << row.text;
        EXPECT_EQ(txq, nullptr) << row.text;
    }
}

TEST_F(wifid_listener, a_datagram_of_2047_bytes_passes_and_a_longer_one_is_cut)
{
    const std::string frame = "\1[\"\"]";
    say(frame.substr(0, 3) + std::string(2047 - frame.size(), 'x') + "\"]");
    EXPECT_EQ(take_one_queued(), payload_start + "[\"" + std::string(2047 - frame.size(), 'x') + "\"]}");
    clear_log();
    say(frame.substr(0, 3) + std::string(2048 - frame.size(), 'x') + "\"]");
    EXPECT_TRUE(was_logged_beginning("Unable to load JSON ,error  on line 1: "));
    EXPECT_EQ(txq, nullptr);
}

TEST_F(wifid_listener, every_length_and_any_bytes_do_no_harm)
{
    unsigned seed = 1;
    for (size_t length = 0; length <= 2100; length += length < 40 ? 1 : 97) {
        std::string bytes;
        while (bytes.size() < length)
            bytes += static_cast<char>((seed = seed * 1103515245 + 12345) >> 16);
        say(bytes);
    }
    say("\1" + std::string(2046, '['));
    say(std::string(100000, '\1'));
    EXPECT_EQ(txq, nullptr);
    say("\1{}");
    EXPECT_EQ(take_one_queued(), payload_start + "{}}") << "and it still listens";
}

TEST_F(wifid_listener, a_receive_that_fails_is_logged)
{
    local_end wifid(SOCK_DGRAM, FROM_WIFID_SOCKET);
    wifid_msg_rx_cb(wifid.fd, EV_READ, nullptr); /* there is nothing to fetch */
    EXPECT_TRUE(was_logged("read failed. error 11:Resource temporarily unavailable"));
}

TEST_F(wifid_listener, a_flood_without_a_controller_leaves_nothing)
{
    da.state = DA_STATE_IDLE;
    da.debug_level = 0;
    local_end wifid(SOCK_DGRAM, FROM_WIFID_SOCKET);
    int said = 0;
    for (int i = 0; i < 5000; i++) {
        said += wifid.say("\1{\"event\": \"flood\"}") ? 1 : 0;
        ev_main();
    }
    EXPECT_EQ(said, 5000);
    EXPECT_EQ(txq, nullptr);
}
