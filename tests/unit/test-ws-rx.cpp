#include "agent/ws-rx.h"

#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "agent/da.h"
#include "tests/unit/fake-memory.h"
#include "tests/unit/support.h"

/* ---- helpers ---- */

class rx_test : public testing::Test {
protected:
    void SetUp() override
    {
        fresh_agent();
        ws_rx_reset();
    }
    void TearDown() override
    {
        memory_refused_from = SIZE_MAX;
        ws_rx_reset();
    }
    std::string message = "untouched";
};

static std::string text_of(size_t length)
{
    std::string text(length, ' ');
    for (size_t i = 0; i < length; i++)
        text[i] = static_cast<char>('!' + i % 89);
    return text;
}

/* ---- whole messages ---- */

TEST_F(rx_test, a_message_in_one_piece_is_complete)
{
    EXPECT_EQ(ws_rx_piece("hello world", 5, 0, true, &message), RX_COMPLETE);
    EXPECT_EQ(message, "hello");
    EXPECT_EQ(logged().size(), 0u);
}

TEST_F(rx_test, a_message_of_no_bytes_is_complete_and_empty)
{
    EXPECT_EQ(ws_rx_piece("x", 0, 0, true, &message), RX_COMPLETE);
    EXPECT_EQ(message, "");
    message = "untouched";
    EXPECT_EQ(ws_rx_piece(nullptr, 0, 0, true, &message), RX_COMPLETE);
    EXPECT_EQ(message, "");
}

TEST_F(rx_test, bytes_of_any_value_pass)
{
    std::string bytes("a\0b\xff", 4);
    EXPECT_EQ(ws_rx_piece(bytes.data(), bytes.size(), 0, true, &message), RX_COMPLETE);
    EXPECT_EQ(message, bytes);
}

/* ---- pieces of a frame ---- */

TEST_F(rx_test, ten_thousand_bytes_in_three_pieces)
{
    std::string text = text_of(10000);
    EXPECT_EQ(ws_rx_piece(text.data(), 4096, 5904, true, &message), RX_MORE);
    EXPECT_EQ(ws_rx_piece(text.data() + 4096, 4096, 1808, true, &message), RX_MORE);
    EXPECT_EQ(message, "untouched");
    EXPECT_EQ(ws_rx_piece(text.data() + 8192, 1808, 0, true, &message), RX_COMPLETE);
    EXPECT_EQ(message.size(), 10000u);
    EXPECT_EQ(message, text);
    EXPECT_TRUE(was_logged("Total payload len is greater than 4k allocate memory , payload len is 10000"));
    EXPECT_TRUE(was_logged("len is 1808, payload_offset = 8192,  payload_len = 10000"));
    EXPECT_EQ(logged().size(), 2u);
}

TEST_F(rx_test, the_next_message_begins_afresh)
{
    ws_rx_piece("abc", 3, 3, true, &message);
    ws_rx_piece("def", 3, 0, true, &message);
    EXPECT_EQ(message, "abcdef");
    EXPECT_EQ(ws_rx_piece("ghi", 3, 0, true, &message), RX_COMPLETE);
    EXPECT_EQ(message, "ghi");
}

TEST_F(rx_test, a_reset_forgets_a_half_message)
{
    ws_rx_piece("lost", 4, 100, true, &message);
    ws_rx_reset();
    EXPECT_EQ(ws_rx_piece("new", 3, 0, true, &message), RX_COMPLETE);
    EXPECT_EQ(message, "new");
}

/* ---- several frames ---- */

TEST_F(rx_test, a_message_may_be_spread_over_several_frames)
{
    EXPECT_EQ(ws_rx_piece("one ", 4, 0, false, &message), RX_MORE);
    EXPECT_EQ(ws_rx_piece("two ", 4, 2, false, &message), RX_MORE);
    EXPECT_EQ(ws_rx_piece("3 ", 2, 0, false, &message), RX_MORE);
    EXPECT_EQ(ws_rx_piece("", 0, 0, false, &message), RX_MORE);
    EXPECT_EQ(ws_rx_piece("end", 3, 0, true, &message), RX_COMPLETE);
    EXPECT_EQ(message, "one two 3 end");
}

TEST_F(rx_test, a_last_frame_of_no_bytes_completes_a_message)
{
    EXPECT_EQ(ws_rx_piece("all", 3, 0, false, &message), RX_MORE);
    EXPECT_EQ(ws_rx_piece("", 0, 0, true, &message), RX_COMPLETE);
    EXPECT_EQ(message, "all");
}

/* ---- limits ---- */

TEST_F(rx_test, sixteen_mebibytes_are_taken)
{
    std::string text = text_of(RX_MESSAGE_LIMIT / 2);
    EXPECT_EQ(ws_rx_piece(text.data(), text.size(), text.size(), true, &message), RX_MORE);
    EXPECT_EQ(ws_rx_piece(text.data(), text.size(), 0, true, &message), RX_COMPLETE);
    EXPECT_EQ(message.size(), 16u * 1024 * 1024);
}

TEST_F(rx_test, one_byte_more_is_refused_before_it_comes)
{
    EXPECT_EQ(ws_rx_piece("12345", 5, RX_MESSAGE_LIMIT - 4, true, &message), RX_FAILED);
    EXPECT_TRUE(was_logged("Not able  to allocate memory for payload , return error"));
    EXPECT_EQ(message, "untouched");
    EXPECT_EQ(ws_rx_piece("next", 4, 0, true, &message), RX_COMPLETE) << "nothing of it is left";
    EXPECT_EQ(message, "next");
}

TEST_F(rx_test, the_limit_holds_for_the_sum_of_the_frames)
{
    std::string text = text_of(1024 * 1024);
    for (int i = 0; i < 16; i++)
        EXPECT_EQ(ws_rx_piece(text.data(), text.size(), 0, false, &message), RX_MORE) << i;
    EXPECT_EQ(ws_rx_piece("x", 1, 0, true, &message), RX_FAILED);
}

TEST_F(rx_test, claims_beyond_all_bounds_are_refused)
{
    for (size_t claim : {size_t{1} << 31, size_t{1} << 32, size_t{1} << 63, SIZE_MAX - 3, SIZE_MAX}) {
        EXPECT_EQ(ws_rx_piece("12345", 5, claim, true, &message), RX_FAILED) << claim;
        ws_rx_reset();
    }
}

TEST_F(rx_test, memory_that_cannot_be_had_fails_the_message)
{
    memory_refused_from = 1000000;
    rx_result result = ws_rx_piece("12345", 5, 2000000, true, &message);
    memory_refused_from = SIZE_MAX;
    EXPECT_EQ(result, RX_FAILED);
    EXPECT_TRUE(was_logged("Not able  to allocate memory for payload , return error"));
    EXPECT_EQ(ws_rx_piece("next", 4, 0, true, &message), RX_COMPLETE);
    EXPECT_EQ(message, "next");
}
