#include "operations/echo-packet.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

static std::string hex(const unsigned char *bytes, size_t length)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < length; i++) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 0x0F];
    }
    return text;
}

static uint16_t checksum(const std::string &bytes)
{
    return internet_checksum(reinterpret_cast<const unsigned char *>(bytes.data()), bytes.size());
}

/* ---- the request ---- */

TEST(echo_packet, a_request_byte_by_byte)
{
    auto packet = build_echo_request(0x1267, 2);
    static_assert(sizeof(packet) == 64);
    EXPECT_EQ(hex(packet.data(), 8), "0800" /* type, code */
                                     "a9a5" /* checksum */
                                     "1267" /* identifier */
                                     "0002" /* sequence */);
    EXPECT_EQ(std::string(packet.begin() + 8, packet.begin() + 63),
              "0123456789:;<=>?@ABCDEFGHIJKLMNOPQRSTUVWXYZ[\\]^_`abcdef");
    EXPECT_EQ(packet[63], 0);
}

TEST(echo_packet, numbers_have_their_high_byte_first)
{
    auto packet = build_echo_request(0xFEDC, 0xBA98);
    EXPECT_EQ(hex(packet.data() + 4, 4), "fedcba98");
}

/* ---- the checksum ---- */

TEST(echo_packet, every_request_holds_its_checksum)
{
    for (unsigned identifier : {0u, 1u, 0x7FFFu, 0x8000u, 0xFFFFu})
        for (unsigned sequence : {0u, 1u, 3u, 0xFFFFu}) {
            auto packet =
                build_echo_request(static_cast<uint16_t>(identifier), static_cast<uint16_t>(sequence));
            EXPECT_EQ(internet_checksum(packet.data(), packet.size()), 0) << identifier << " " << sequence;
            packet[10] ^= 1;
            EXPECT_NE(internet_checksum(packet.data(), packet.size()), 0) << "it would notice a change";
        }
}

TEST(echo_packet, checksums_by_hand)
{
    EXPECT_EQ(checksum(""), 0xFFFF);
    EXPECT_EQ(checksum(std::string("\x00\x01\xF2\x03\xF4\xF5\xF6\xF7", 8)), 0x220D) << "the RFC's example";
    EXPECT_EQ(checksum(std::string(4, '\xFF')), 0) << "a carry out of the top comes back at the bottom";
    EXPECT_EQ(checksum(std::string("\x12\x34\x56", 3)), 0xFFFF - 0x1234 - 0x5600)
        << "an odd byte is a high one";
    EXPECT_EQ(checksum(std::string(100000, '\xFF')), 0) << "many carries";
}

/* ---- what is read ---- */

/* An IP header of so many words, then these bytes. */
static std::string packet_of(unsigned words, const std::string &icmp)
{
    std::string header(words * 4, '\xAA');
    if (words > 0)
        header[0] = static_cast<char>(0x40 | words);
    return header + icmp;
}

static std::string numbers_of(const std::string &packet)
{
    /* A block of its own: the sanitizer sees a read beyond. */
    std::vector<unsigned char> exact(packet.begin(), packet.end());
    exact.shrink_to_fit();
    echo_numbers numbers = {7, 7};
    int result = read_echo_numbers(exact.data(), exact.size(), &numbers);
    return std::to_string(result) + " " + std::to_string(numbers.identifier) + " " +
           std::to_string(numbers.sequence);
}

static const std::string reply("\x00\x00\x12\x34\xFE\xDC\xBA\x98", 8);

TEST(echo_packet, the_numbers_stand_behind_the_ip_header)
{
    EXPECT_EQ(numbers_of(packet_of(5, reply)), "0 65244 47768");
    EXPECT_EQ(numbers_of(packet_of(5, reply + "data")), "0 65244 47768");
    EXPECT_EQ(numbers_of(packet_of(6, reply)), "0 65244 47768") << "options";
    EXPECT_EQ(numbers_of(packet_of(14, reply)), "0 65244 47768") << "all that fit into 64 bytes";
}

TEST(echo_packet, a_header_that_is_not_all_there)
{
    for (unsigned words : {5u, 6u, 14u, 15u})
        for (size_t there = 0; there < reply.size(); there++)
            EXPECT_EQ(numbers_of(packet_of(words, reply.substr(0, there))), "-1 -1 -1")
                << words << " " << there;
    EXPECT_EQ(numbers_of(""), "-1 -1 -1");
    EXPECT_EQ(numbers_of("\x4F"), "-1 -1 -1");
    EXPECT_EQ(numbers_of("\x4F" + std::string(63, 'x')), "-1 -1 -1") << "64 bytes, its header says 60";
}

TEST(echo_packet, a_header_length_of_zero_is_taken_at_its_word)
{
    EXPECT_EQ(numbers_of(std::string("\x40\x00\x00\x00\x00\x05\x00\x06", 8)), "0 5 6");
}
