#include "device/frames.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "device/scmd.h"

class framing : public testing::Test {
protected:
    int ours = -1;
    int peer = -1;

    void SetUp() override
    {
        int pair[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
        ours = pair[0];
        peer = pair[1];
    }
    void TearDown() override
    {
        close(ours);
        if (peer >= 0)
            close(peer);
    }

    void peer_sends(const std::string &bytes)
    {
        ASSERT_EQ(send(peer, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }
    void peer_leaves(void)
    {
        close(peer);
        peer = -1;
    }
    std::string peer_receives(void)
    {
        char bytes[256];
        ssize_t length = recv(peer, bytes, sizeof(bytes), MSG_DONTWAIT);
        return length < 0 ? "(nothing)" : std::string(bytes, static_cast<size_t>(length));
    }

    /* One message, or "error N" with errno. */
    std::string receives(int milliseconds = 2000)
    {
        char *buffer = nullptr;
        size_t length = 0;
        if (read_a_msg_within(ours, &buffer, &length, milliseconds) != 0) {
            EXPECT_EQ(buffer, nullptr) << "untouched on failure";
            EXPECT_EQ(length, 0u) << "untouched on failure";
            return "error " + std::to_string(errno);
        }
        EXPECT_EQ(buffer[length], '\0');
        std::string text(buffer, length);
        free(buffer);
        return text;
    }
};

static std::string frame(const std::string &text)
{
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes += static_cast<char>(text.size() >> shift);
    return bytes + text;
}

static std::string error(int reason) { return "error " + std::to_string(reason); }

/* ---- the wire ---- */

TEST_F(framing, a_message_is_four_bytes_of_length_and_the_text)
{
    EXPECT_EQ(write_a_msg(ours, "{\"a\": 1}", 8), 0);
    EXPECT_EQ(peer_receives(), std::string("\0\0\0\x08{\"a\": 1}", 12));
    std::string longer(0x0102, 'x');
    EXPECT_EQ(write_a_msg(ours, longer.data(), longer.size()), 0);
    EXPECT_EQ(peer_receives().substr(0, 5), std::string("\0\0\x01\x02x", 5)) << "big-endian";
}

TEST_F(framing, an_empty_message_is_a_header_alone)
{
    EXPECT_EQ(write_a_msg(ours, "", 0), 0);
    EXPECT_EQ(peer_receives(), std::string(4, '\0'));
    peer_sends(frame(""));
    EXPECT_EQ(receives(), "");
}

TEST_F(framing, bytes_pass_as_they_are)
{
    std::string text("a\0\xFF\n", 4);
    peer_sends(frame(text));
    EXPECT_EQ(receives(), text);
}

TEST_F(framing, messages_on_one_stream_stay_apart)
{
    peer_sends(frame("first") + frame("") + frame("third") + frame("cut").substr(0, 5));
    EXPECT_EQ(receives(), "first");
    EXPECT_EQ(receives(), "");
    EXPECT_EQ(receives(), "third");
    peer_leaves();
    EXPECT_EQ(receives(), error(ECONNRESET));
}

TEST_F(framing, the_largest_message_passes_both_ways)
{
    std::string text(SCMD_MAX_LENGTH, 'm');
    text.back() = 'z';
    std::thread writer([&] { EXPECT_EQ(write_a_msg(peer, text.data(), text.size()), 0); });
    EXPECT_EQ(receives(10000), text);
    writer.join();
}

/* ---- limits and lies ---- */

TEST_F(framing, a_message_of_4_mib_and_a_byte_is_refused)
{
    std::string text(SCMD_MAX_LENGTH + 1, 'm');
    EXPECT_EQ(write_a_msg(ours, text.data(), text.size()), -1);
    EXPECT_EQ(errno, EMSGSIZE);
    EXPECT_EQ(peer_receives(), "(nothing)") << "nothing of it leaves";
    peer_sends(std::string("\x00\x40\x00\x01", 4));
    EXPECT_EQ(receives(), error(EMSGSIZE));
}

TEST_F(framing, a_huge_length_is_refused_at_once)
{
    peer_sends("\xFF\xFF\xFF\xFF");
    EXPECT_EQ(receives(), error(EMSGSIZE));
}

TEST_F(framing, memory_grows_with_what_arrives_not_with_what_is_announced)
{
    frame_reader reader = {};
    peer_sends(std::string("\x00\x40\x00\x00", 4) + "ten bytes.");
    EXPECT_EQ(frame_read(&reader, ours), 0);
    EXPECT_EQ(reader.length, static_cast<size_t>(SCMD_MAX_LENGTH));
    EXPECT_EQ(reader.used, 10u);
    EXPECT_LE(reader.capacity, 4096u);
    peer_sends(std::string(20000, 'x'));
    EXPECT_EQ(frame_read(&reader, ours), 0);
    EXPECT_EQ(reader.used, 20010u);
    EXPECT_LE(reader.capacity, 2 * 20010u);
    frame_clear(&reader);
    EXPECT_EQ(reader.text, nullptr);
    EXPECT_EQ(reader.header_used, 0u);
}

/* ---- peers that fail ---- */

TEST_F(framing, a_peer_that_goes_away_is_an_error)
{
    for (size_t sent : {0u, 1u, 3u, 4u, 6u}) {
        SCOPED_TRACE(sent);
        if (peer < 0) {
            close(ours);
            SetUp();
        }
        if (sent > 0)
            peer_sends(frame("hello").substr(0, sent));
        peer_leaves();
        EXPECT_EQ(receives(), error(ECONNRESET));
    }
}

TEST_F(framing, a_peer_that_stalls_is_an_error_in_time)
{
    for (size_t sent : {0u, 2u, 4u, 6u}) {
        SCOPED_TRACE(sent);
        TearDown();
        SetUp();
        if (sent > 0)
            peer_sends(frame("hello").substr(0, sent));
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(receives(60), error(ETIMEDOUT));
        auto waited = std::chrono::steady_clock::now() - start;
        EXPECT_GE(waited, std::chrono::milliseconds(50));
        EXPECT_LT(waited, std::chrono::seconds(5));
    }
}

TEST_F(framing, a_peer_that_trickles_does_not_stretch_the_time)
{
    std::string bytes = frame(std::string(1000, 't'));
    std::thread trickle([&] {
        for (size_t i = 0; i < bytes.size(); i++) {
            if (send(peer, bytes.data() + i, 1, MSG_NOSIGNAL) != 1)
                return;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(receives(100), error(ETIMEDOUT));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(3000));
    shutdown(ours, SHUT_RDWR);
    trickle.join();
}

TEST_F(framing, a_peer_that_does_not_read_stalls_the_writer_only_for_its_time)
{
    std::string text(SCMD_MAX_LENGTH, 'm');
    EXPECT_EQ(write_a_msg_within(ours, text.data(), text.size(), 60), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
}

TEST_F(framing, writing_to_a_closed_peer_raises_no_signal)
{
    peer_leaves();
    EXPECT_EQ(write_a_msg(ours, "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
}

TEST_F(framing, a_descriptor_that_is_no_socket_fails)
{
    int fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    char *buffer = nullptr;
    size_t length = 0;
    EXPECT_EQ(write_a_msg(fd, "x", 1), -1);
    EXPECT_EQ(errno, ENOTSOCK);
    EXPECT_EQ(read_a_msg(fd, &buffer, &length), -1);
    EXPECT_EQ(errno, ENOTSOCK);
    close(fd);
}

/* ---- piece by piece ---- */

TEST_F(framing, the_reader_takes_what_is_there_and_never_waits)
{
    frame_reader reader = {};
    EXPECT_EQ(frame_read(&reader, ours), 0) << "nothing yet, on a blocking socket";
    std::string bytes = frame("in pieces");
    for (size_t i = 0; i < bytes.size(); i++) {
        SCOPED_TRACE(i);
        peer_sends(bytes.substr(i, 1));
        EXPECT_EQ(frame_read(&reader, ours), i + 1 == bytes.size() ? 1 : 0);
    }
    size_t length = 0;
    char *text = frame_take(&reader, &length);
    EXPECT_STREQ(text, "in pieces");
    EXPECT_EQ(length, 9u);
    free(text);
    EXPECT_EQ(reader.text, nullptr);

    peer_sends(frame("again") + frame("and more"));
    EXPECT_EQ(frame_read(&reader, ours), 1) << "fresh after the message was taken";
    EXPECT_STREQ(reader.text, "again");
    frame_clear(&reader);
    EXPECT_EQ(frame_read(&reader, ours), 1);
    EXPECT_STREQ(reader.text, "and more");
    frame_clear(&reader);
}

TEST_F(framing, a_header_in_two_pieces_is_not_read_too_far)
{
    for (size_t piece : {1u, 2u, 3u}) {
        SCOPED_TRACE(piece);
        std::string bytes = frame("split header");
        frame_reader reader = {};
        peer_sends(bytes.substr(0, piece));
        EXPECT_EQ(frame_read(&reader, ours), 0);
        peer_sends(bytes.substr(piece));
        EXPECT_EQ(frame_read(&reader, ours), 1);
        EXPECT_STREQ(reader.text, "split header");
        frame_clear(&reader);
    }
}

TEST_F(framing, a_complete_reader_takes_nothing_of_the_next_message)
{
    frame_reader reader = {};
    peer_sends(frame("one") + frame("two"));
    EXPECT_EQ(frame_read(&reader, ours), 1);
    EXPECT_EQ(frame_read(&reader, ours), 1);
    EXPECT_STREQ(reader.text, "one");
    frame_clear(&reader);
    EXPECT_EQ(receives(), "two");
}

TEST_F(framing, a_message_that_grows_through_every_size_is_whole)
{
    for (size_t size : {1u, 4094u, 4095u, 4096u, 4097u, 8191u, 8192u, 8193u, 70000u}) {
        SCOPED_TRACE(size);
        std::string text(size, 'g');
        text[size - 1] = 'e';
        peer_sends(frame(text));
        EXPECT_EQ(receives(), text);
    }
}
