#include "operations/log-stream.h"

#include <filesystem>

#include <sys/stat.h>

#include "platform/front-end.h"
#include "protocol/command-output.h"
#include "tests/unit/connection-test.h"
#include "tests/unit/local-sender.h"
#include "tests/unit/queued.h"

static std::vector<std::string> pieces; /* what the stream sent, as the front end sees it: "status:output" */

static int keep_piece(const char *text, size_t)
{
    json_ptr message(json_loads(text, 0, nullptr));
    pieces.push_back(std::string(json_string_value(json_object_get(message.get(), "status"))) + ":" +
                     json_string_value(json_object_get(message.get(), "output")));
    return 0;
}

class log_stream : public connection_test {
protected:
    void SetUp() override
    {
        connection_test::SetUp();
        std::filesystem::remove_all(LOG_SERVER_SOCKET);
        log_stream_reset();
        command_output_reset();
        hooks.append_logs = nullptr; /* only the lines of the test */
        hooks.write_to_fcgi = keep_piece;
        pieces.clear();
    }
    void TearDown() override
    {
        log_stream_reset();
        command_output_reset();
        da.state = DA_STATE_IDLE;
        connection_test::TearDown();
    }

    /* Lines with these numbers. */
    static std::string lines(int from, int to)
    {
        std::string text;
        for (int number = from; number <= to; number++)
            text += "line " + std::to_string(number) + "\n";
        return text;
    }
    static void append(int from, int to)
    {
        for (int number = from; number <= to; number++)
            append_logs(("line " + std::to_string(number)).c_str());
    }
};

using texts = std::vector<std::string>;

/* ---- history ---- */

TEST_F(log_stream, five_lines_are_one_batch)
{
    append(1, 5);
    start_orv_logging();
    EXPECT_EQ(pieces, (texts{"Initiated:", "InProgress:" + lines(1, 5)}));
    EXPECT_FALSE(was_logged_beginning("start_orv_logging")) << "only whole batches are told";
}

TEST_F(log_stream, after_250_lines_the_last_hundred_are_there)
{
    append(1, 250);
    start_orv_logging();
    texts expected = {"Initiated:"};
    for (int first = 151; first <= 241; first += 10)
        expected.push_back("InProgress:" + lines(first, first + 9));
    EXPECT_EQ(pieces, expected);
    EXPECT_EQ(times_logged_beginning("start_orv_logging: Send log history (10 lines)"), 10);
}

TEST_F(log_stream, no_line_at_all_is_no_batch)
{
    start_orv_logging();
    EXPECT_EQ(pieces, texts{"Initiated:"});
}

TEST_F(log_stream, around_the_wrap_no_line_is_lost_or_doubled)
{
    for (int count : {9, 10, 11, 99, 100, 101, 199, 200, 201}) {
        log_stream_reset();
        pieces.clear();
        append(1, count);
        start_orv_logging();
        std::string all;
        for (size_t i = 1; i < pieces.size(); i++)
            all += pieces[i].substr(strlen("InProgress:"));
        EXPECT_EQ(all, lines(std::max(1, count - 99), count)) << count;
        EXPECT_EQ(pieces.size(), 1u + static_cast<size_t>((std::min(count, 100) + 9) / 10)) << count;
    }
}

TEST_F(log_stream, starting_twice_sends_the_history_once)
{
    append(1, 5);
    start_orv_logging();
    start_orv_logging();
    EXPECT_EQ(pieces.size(), 2u);
    EXPECT_EQ(stop_orv_logging(), 1);
    start_orv_logging();
    EXPECT_EQ(pieces.size(), 5u) << "again after a stop";
}

/* ---- live ---- */

TEST_F(log_stream, a_new_line_is_sent_at_once_until_the_stop)
{
    append(1, 1);
    EXPECT_TRUE(pieces.empty());
    start_orv_logging();
    EXPECT_EQ(log_streaming, 1);
    pieces.clear();
    append(2, 3);
    EXPECT_EQ(pieces, (texts{"InProgress:line 2\n", "InProgress:line 3\n"}));
    pieces.clear();
    EXPECT_EQ(stop_orv_logging(), 1);
    EXPECT_EQ(log_streaming, 0);
    EXPECT_EQ(pieces, texts{"Complete:"});
    EXPECT_EQ(stop_orv_logging(), 0);
    append(4, 4);
    EXPECT_EQ(pieces, texts{"Complete:"});
}

TEST_F(log_stream, the_controller_gets_history_and_lines_in_messages)
{
    da.state = DA_STATE_CONNECTED;
    ts_mode = TS_FOR_CONTROLLER;
    append(1, 12);
    exec_running = 1;
    start_orv_logging();
    EXPECT_EQ(take_one_queued(), "{\"msgType\": 409, \"status\": \"Initiated\", \"output\": \"\"}");
    append(13, 13);
    EXPECT_EQ(ts_data, lines(1, 13));
    send_ts_data_cb(nullptr);
    EXPECT_EQ(take_queued().size(), 1u);
    EXPECT_EQ(stop_orv_logging(), 1);
    exec_running = 0;
    EXPECT_EQ(txq, nullptr);
    send_ts_data_cb(nullptr);
    EXPECT_EQ(take_one_queued(), "{\"msgType\": 409, \"status\": \"Complete\", \"output\": \"\"}");
}

TEST_F(log_stream, the_front_end_gets_them_on_its_connection)
{
    install_hooks();
    hooks.append_logs = nullptr;
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
    fd_guard front_end(ends[0]);
    ASSERT_EQ(front_end_take(ends[1], [](int32_t, int32_t, void *) {}), 0);
    append(1, 2);
    start_orv_logging();
    append(3, 3);
    (void)stop_orv_logging();
    for (const char *expected : {"{\"msgType\": 409, \"status\": \"Initiated\", \"output\": \"\"}",
                                 "{\"msgType\": 409, \"status\": \"InProgress\", "
                                 "\"output\": \"line 1\\nline 2\\n\"}",
                                 "{\"msgType\": 409, \"status\": \"InProgress\", \"output\": \"line 3\\n\"}",
                                 "{\"msgType\": 409, \"status\": \"Complete\", \"output\": \"\"}"}) {
        char packet[256];
        ssize_t length = recv(front_end.fd, packet, sizeof(packet), 0);
        ASSERT_GT(length, 0) << expected;
        EXPECT_EQ(std::string(packet, static_cast<size_t>(length)), expected);
    }
    front_end_drop();
}

/* ---- cuts ---- */

TEST_F(log_stream, a_line_of_148_characters_keeps_its_line_feed)
{
    append_logs(std::string(148, 'a').c_str());
    append_logs(std::string(149, 'b').c_str());
    append_logs(std::string(1023, 'c').c_str());
    append_logs("");
    start_orv_logging();
    EXPECT_EQ(pieces[1], "InProgress:" + std::string(148, 'a') + "\n" + std::string(149, 'b') +
                             std::string(149, 'c') + "\n");
}

TEST_F(log_stream, no_character_is_cut_in_two)
{
    static const struct {
        size_t before; /* characters of one byte in front */
        std::string kept;
    } rows[] = {
        {145, "\u20ac\n"}, {146, "\u20ac"}, {147, ""}, {148, ""}, {149, ""},
    };
    for (const auto &row : rows) {
        log_stream_reset();
        pieces.clear();
        append_logs((std::string(row.before, 'a') + "\u20ac").c_str());
        start_orv_logging();
        EXPECT_EQ(pieces[1], "InProgress:" + std::string(row.before, 'a') + row.kept) << row.before;
    }
}

TEST_F(log_stream, bytes_that_are_no_text_arrive_as_one)
{
    append_logs(std::string(200, '\xFF').c_str());
    append_logs("next");
    start_orv_logging();
    std::string expected = "InProgress:";
    for (int i = 0; i < 149; i++)
        expected += "\uFFFD";
    EXPECT_EQ(pieces[1], expected + "next\n");
}

/* ---- lines of the agent itself ---- */

static int log_and_keep(const char *text, size_t length)
{
    debug_log("wifi.c", 1, 0, "Failed to send message");
    return keep_piece(text, length);
}

TEST_F(log_stream, a_line_logged_while_one_is_streamed_goes_to_the_file_only)
{
    hooks.append_logs = append_logs;
    hooks.write_to_fcgi = log_and_keep;
    append(1, 25);
    start_orv_logging();
    append_logs("line 26");
    debug_log("wifi.c", 7, 0, "own line");
    ASSERT_EQ(pieces.size(), 6u);
    EXPECT_EQ(pieces[3], "InProgress:" + lines(21, 25));
    EXPECT_EQ(pieces[4], "InProgress:" + lines(26, 26));
    EXPECT_NE(pieces[5].find(" wifi.c:7:own line\n"), std::string::npos) << "own lines are streamed, too";
    EXPECT_TRUE(was_logged("Failed to send message"));
    (void)stop_orv_logging();
    pieces.clear();
    start_orv_logging();
    EXPECT_EQ(pieces[3].find("Failed"), std::string::npos) << "nor do they come into the history";
}

/* ---- the socket ---- */

class log_server : public log_stream {
protected:
    void SetUp() override
    {
        log_stream::SetUp();
        ASSERT_EQ(log_server_init(), 0);
        start_orv_logging();
        pieces.clear();
    }

    /* What the stream made of a datagram. */
    static std::string streamed(const std::string &datagram)
    {
        EXPECT_EQ(send_datagram_to(LOG_SERVER_SOCKET, datagram), 0);
        pieces.clear();
        ev_main();
        return pieces.size() == 1 ? pieces[0].substr(strlen("InProgress:"))
                                  : std::to_string(pieces.size()) + " pieces";
    }
};

TEST_F(log_server, the_socket_is_at_its_place)
{
    struct stat status = {};
    ASSERT_EQ(lstat("/var/tmp/agent_logserver", &status), 0);
    EXPECT_EQ(status.st_mode, S_IFSOCK | 0660u);
    EXPECT_EQ(ev_count_fds(), 1);
}

TEST_F(log_server, a_datagram_is_a_line)
{
    EXPECT_EQ(streamed("hostapd: up"), "hostapd: up\n");
    EXPECT_EQ(streamed(""), "\n");
    EXPECT_EQ(streamed("%s%n"), "%s%n\n");
    EXPECT_EQ(streamed(std::string("one\0two", 7)), "one\n");
    EXPECT_EQ(streamed(std::string(148, 'a')), std::string(148, 'a') + "\n");
    EXPECT_EQ(streamed(std::string(149, 'a')), std::string(149, 'a'));
}

TEST_F(log_server, a_line_of_200_characters_is_cut)
{
    EXPECT_EQ(streamed(std::string(200, 'a')), std::string(149, 'a'));
    EXPECT_EQ(streamed(std::string(100000, 'b')), std::string(149, 'b'));
    EXPECT_EQ(streamed("next"), "next\n") << "the rest does not come with the next";
}

TEST_F(log_server, a_character_on_the_border_of_what_is_read_does_no_harm)
{
    for (size_t before = 145; before <= 151; before++) {
        std::string kept = std::string(std::min<size_t>(before, 149), 'a');
        EXPECT_EQ(streamed(std::string(before, 'a') + "\U0001F600"),
                  before == 145 ? kept + "\U0001F600" : kept)
            << before;
    }
}

TEST_F(log_server, a_failing_read_is_logged)
{
    fd_guard quiet(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    log_server_rx_cb(quiet.fd, EV_READ, nullptr);
    EXPECT_NE(file_text(AGENT_LOG_FILE)
                  .find(":read failed on logserver. error 11:Resource temporarily unavailable\n\n"),
              std::string::npos);
    EXPECT_TRUE(pieces.empty());
}

TEST_F(log_server, a_place_that_is_taken_is_a_failure_that_leaves_nothing)
{
    log_stream_reset();
    block_place(LOG_SERVER_SOCKET);
    EXPECT_EQ(log_server_init(), -1);
    EXPECT_TRUE(was_logged("Failed to bind logserver socket Address already in use"));
    EXPECT_EQ(ev_count_fds(), 0);
    free_place(LOG_SERVER_SOCKET);
}

TEST_F(log_server, a_descriptor_that_the_loop_cannot_hold_is_no_socket)
{
    log_stream_reset();
    std::vector<int> taken;
    while (taken.empty() || taken.back() < EV_FD_LIMIT - 1)
        taken.push_back(dup(0));
    EXPECT_EQ(log_server_init(), -1);
    for (int fd : taken)
        close(fd);
    EXPECT_TRUE(was_logged("Failed to open logserver socket Too many open files"));
    EXPECT_EQ(ev_count_fds(), 0);
}
