#include "operations/scan-reply.h"

#include <cstring>
#include <memory>

#include <gtest/gtest.h>

#include "tests/unit/scan-bytes.h"

static const std::string mac("\x02\x00\x5E\xFF\x00\x0A", 6);

/*
 * The bytes as a block of their own that begins `shift` bytes behind an aligned place: the sanitizers see
 * every byte read beyond, and every number read as if it were aligned.
 */
struct exact_bytes {
    std::unique_ptr<char[]> block;
    const char *bytes;

    explicit exact_bytes(const std::string &text, size_t shift = 0)
        : block(new char[text.size() + shift]), bytes(block.get() + shift)
    {
        memcpy(block.get() + shift, text.data(), text.size());
    }
};

static int parse(const std::string &text, scan_reply *reply, size_t shift = 0)
{
    exact_bytes exact(text, shift);
    return parse_scan_reply(exact.bytes, text.size(), reply);
}

static bool complete(const std::string &text)
{
    exact_bytes exact(text);
    return scan_reply_complete(exact.bytes, text.size());
}

/* ---- results ---- */

TEST(scan_reply, a_result)
{
    std::string text = scan_header(1, 2, 3) + channel_bytes(36, 5, -95, 2) +
                       channel_bytes(-1, INT32_MIN, INT32_MAX, 0) + channel_bytes(165, 1, 2, 3) +
                       neighbour_bytes(mac, "Bakery", "WPA2", 36, -61) +
                       neighbour_bytes("abcdef", "", "", 44, INT32_MIN);
    for (size_t shift : {0u, 1u, 2u, 3u}) {
        scan_reply reply;
        ASSERT_EQ(parse(text, &reply, shift), 0);
        EXPECT_EQ(reply.type, 1u);
        ASSERT_EQ(reply.channels.size(), 3u);
        EXPECT_EQ(reply.channels[0].channel, 36);
        EXPECT_EQ(reply.channels[0].interference, 5);
        EXPECT_EQ(reply.channels[0].noise, -95);
        EXPECT_EQ(reply.channels[0].num_aps, 2);
        EXPECT_EQ(reply.channels[1].channel, -1);
        EXPECT_EQ(reply.channels[1].interference, INT32_MIN);
        EXPECT_EQ(reply.channels[1].noise, INT32_MAX);
        EXPECT_EQ(reply.channels[2].num_aps, 3);
        ASSERT_EQ(reply.neighbours.size(), 2u);
        EXPECT_EQ(memcmp(reply.neighbours[0].bssid, mac.data(), 6), 0);
        EXPECT_EQ(reply.neighbours[0].ssid, "Bakery");
        EXPECT_EQ(reply.neighbours[0].encryption, "WPA2");
        EXPECT_EQ(reply.neighbours[0].channel, 36);
        EXPECT_EQ(reply.neighbours[0].signal, -61);
        EXPECT_EQ(memcmp(reply.neighbours[1].bssid, "abcdef", 6), 0);
        EXPECT_EQ(reply.neighbours[1].ssid, "");
        EXPECT_EQ(reply.neighbours[1].signal, INT32_MIN);
    }
}

TEST(scan_reply, texts_end_at_their_field)
{
    scan_reply reply;
    std::string text = scan_header(1, 2, 0) +
                       neighbour_bytes(mac, std::string(40, 's'), std::string(40, 'e'), 1, -1) +
                       neighbour_bytes(mac, std::string("a\0b", 3), std::string("\xFF\xC3\0x", 4), 1, -1);
    ASSERT_EQ(parse(text, &reply), 0);
    EXPECT_EQ(reply.neighbours[0].ssid, std::string(32, 's'));
    EXPECT_EQ(reply.neighbours[0].encryption, std::string(34, 'e'));
    EXPECT_EQ(reply.neighbours[0].channel, 1);
    EXPECT_EQ(reply.neighbours[1].ssid, "a");
    EXPECT_EQ(reply.neighbours[1].encryption, "\xFF\xC3") << "any encoding";
}

TEST(scan_reply, a_result_without_entries)
{
    scan_reply reply;
    EXPECT_EQ(parse(scan_header(1, 0, 0), &reply), 0);
    EXPECT_TRUE(reply.channels.empty());
    EXPECT_TRUE(reply.neighbours.empty());
}

TEST(scan_reply, the_largest_result)
{
    std::string text = scan_header(1, 255, 255);
    for (int i = 0; i < 255; i++)
        text += channel_bytes(i, 0, 0, 0);
    for (int i = 0; i < 255; i++)
        text += neighbour_bytes(mac, "", "", i, 0);
    EXPECT_EQ(text.size(), static_cast<size_t>(SCAN_REPLY_LIMIT));
    scan_reply reply;
    ASSERT_EQ(parse(text, &reply), 0);
    EXPECT_EQ(reply.channels[254].channel, 254);
    EXPECT_EQ(reply.neighbours[254].channel, 254);
}

TEST(scan_reply, what_follows_the_entries_does_not_count)
{
    scan_reply reply;
    EXPECT_EQ(parse(scan_header(1, 0, 1) + channel_bytes(11, 0, 0, 0) + "more", &reply), 0);
    EXPECT_EQ(reply.channels.size(), 1u);
}

TEST(scan_reply, counts_that_lie)
{
    std::string whole =
        scan_header(1, 1, 1) + channel_bytes(11, 0, 0, 0) + neighbour_bytes(mac, "a", "b", 1, -1);
    scan_reply reply;
    ASSERT_EQ(parse(whole, &reply), 0);
    for (size_t length = 0; length < whole.size(); length++) {
        EXPECT_EQ(parse(whole.substr(0, length), &reply), -1) << length;
        EXPECT_TRUE(reply.channels.empty()) << length;
        EXPECT_FALSE(complete(whole.substr(0, length))) << length;
    }
    EXPECT_TRUE(complete(whole));
    EXPECT_TRUE(complete(whole + "more"));
    whole[10] = 2;
    EXPECT_EQ(parse(whole, &reply), -1);
    whole[10] = '\xFF'; /* a count is unsigned */
    EXPECT_EQ(parse(whole, &reply), -1);
    whole[10] = 1;
    whole[11] = '\xFF';
    EXPECT_EQ(parse(whole, &reply), -1);
    EXPECT_EQ(parse(scan_header(1, 255, 255) + std::string(8192 - 12, 'x'), &reply), -1);
}

/* ---- failures and others ---- */

TEST(scan_reply, a_failure)
{
    scan_reply reply;
    EXPECT_EQ(parse(failure_bytes(std::string("radio is off\0", 13)), &reply), 0);
    EXPECT_EQ(reply.type, 2u);
    EXPECT_EQ(reply.failure, "radio is off");
    EXPECT_EQ(parse(failure_bytes(std::string("a\0b\0", 4)), &reply), 0);
    EXPECT_EQ(reply.failure, "a");
    EXPECT_EQ(parse(failure_bytes("no NUL"), &reply), 0);
    EXPECT_EQ(reply.failure, "no NUL");
    for (size_t length = 4; length <= 10; length++) {
        EXPECT_EQ(parse(failure_bytes("").substr(0, length), &reply), 0) << length;
        EXPECT_EQ(reply.failure, "") << length;
    }
    for (size_t length = 0; length < 4; length++)
        EXPECT_EQ(parse(failure_bytes("").substr(0, length), &reply), -1) << length;
}

TEST(scan_reply, a_failure_is_complete_with_its_nul)
{
    EXPECT_FALSE(complete(failure_bytes("")));
    EXPECT_FALSE(complete(failure_bytes("radio is off")));
    EXPECT_FALSE(complete(number_bytes(2))) << "a NUL of the type is none of the text";
    EXPECT_FALSE(complete(number_bytes(2) + std::string(6, '\0')));
    EXPECT_TRUE(complete(number_bytes(2) + std::string(7, '\0')));
    EXPECT_TRUE(complete(failure_bytes(std::string("radio is off\0", 13))));
    EXPECT_FALSE(complete(failure_bytes(std::string(SCAN_REPLY_LIMIT - 11, 'x'))));
    EXPECT_TRUE(complete(failure_bytes(std::string(SCAN_REPLY_LIMIT - 10, 'x')))) << "enough of it";
}

TEST(scan_reply, other_types_hold_nothing)
{
    for (int32_t type : {0, 3, -1, 0x01000000, INT32_MIN}) {
        scan_reply reply;
        EXPECT_TRUE(complete(number_bytes(type)));
        EXPECT_EQ(parse(number_bytes(type), &reply), 0);
        EXPECT_EQ(reply.type, static_cast<uint32_t>(type));
        EXPECT_EQ(parse(scan_header(type, 255, 255), &reply), 0);
        EXPECT_TRUE(reply.channels.empty() && reply.neighbours.empty() && reply.failure.empty());
    }
    for (const char *text : {"", "\x01", "\x01\x02", "\x01\x02\x03"})
        EXPECT_FALSE(complete(text));
}

/* ---- any bytes ---- */

TEST(scan_reply, any_bytes_of_any_length_at_any_place)
{
    unsigned seed = 20261121;
    auto next = [&seed] { return (seed = seed * 1103515245 + 12345) / 65536; };
    size_t results = 0;
    for (int round = 0; round < 20000; round++) {
        std::string text(next() % 700, '\0');
        for (char &byte : text)
            byte = static_cast<char>(next());
        if (text.size() >= 12 && round % 4 != 0) { /* most look like replies, with counts that may be true */
            text.replace(0, 4, number_bytes(static_cast<int32_t>(1 + round % 2)));
            text[10] = static_cast<char>(next() % 8);
            text[11] = static_cast<char>(next() % 8);
        }
        exact_bytes exact(text, static_cast<size_t>(round % 4));
        bool whole = scan_reply_complete(exact.bytes, text.size());
        scan_reply reply;
        int result = parse_scan_reply(exact.bytes, text.size(), &reply);
        EXPECT_TRUE(!whole || result == 0) << "what is complete can be read";
        if (result == 0 && reply.type == SCAN_RESULT) {
            EXPECT_TRUE(whole) << "and only that";
            EXPECT_EQ(reply.neighbours.size(), static_cast<unsigned char>(text[10]));
            EXPECT_EQ(reply.channels.size(), static_cast<unsigned char>(text[11]));
            results++;
        }
    }
    EXPECT_GT(results, 1000u) << "it reached the entries";
}
