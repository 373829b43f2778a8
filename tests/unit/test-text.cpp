#include "agent/text.h"

#include <climits>

#include <gtest/gtest.h>

/* Not a constant: the compiler would see the cut coming and warn. */
const char *seven_letters = "abcdefg";

TEST(text, copies_are_cut_to_the_array)
{
    char out[5];
    copy_text(out, seven_letters);
    EXPECT_STREQ(out, "abcd");
    copy_text(out, "x");
    EXPECT_STREQ(out, "x");
    copy_text(out, nullptr);
    EXPECT_STREQ(out, "");
}

TEST(text, format_texts_are_expanded_without_arguments)
{
    static const struct {
        const char *text, *expected;
    } rows[] = {
        {"", ""},
        {"plain", "plain"},
        {"100%%", "100%"},
        {"a%db", "a0b"},
        {"a%sb", "ab"},
        {"a%nb", "ab"},
        {"%-08.3lld|", "0|"},
        {"%x%u%i%o%X", "00000"},
        {"%f%e%g%a", "0000"},
        {"%p", "0"},
        {"%c%S%m", ""},
        {"%hhd%zu%ld%jd%td", "00000"},
        {"%*d %1$d", "0 0"},
        {"%", ""},
        {"end%", "end"},
        {"end%5", "end"},
        {"%5%", "%"},
        {"%%d", "%d"},
        {"%%%d", "%0"},
        {"https://host/a%2Fb", "https://host/a0b"}, /* "%2F" prints a number */
        {"a%\nb", "a\nb"},
    };
    for (const auto &row : rows) {
        char out[64];
        copy_format_text(out, row.text);
        EXPECT_STREQ(out, row.expected) << "from \"" << row.text << '"';
    }
}

TEST(text, format_texts_are_cut_after_expansion)
{
    char out[4];
    expand_format_text(out, sizeof(out), "%%%%%%%%");
    EXPECT_STREQ(out, "%%%");
    expand_format_text(out, sizeof(out), nullptr);
    EXPECT_STREQ(out, "");
}

TEST(text, numbers_are_clamped)
{
    EXPECT_EQ(clamp_to_int32(INT64_MAX), INT32_MAX);
    EXPECT_EQ(clamp_to_int32(INT64_MIN), INT32_MIN);
    EXPECT_EQ(clamp_to_int32(-5), -5);
    EXPECT_EQ(clamp_to_int32(int64_t{INT32_MAX} + 1), INT32_MAX);
}

TEST(text, numbers_are_read_like_atoi_but_saturate)
{
    static const struct {
        const char *text;
        int32_t expected;
    } rows[] = {
        {"12", 12},
        {"  -7x", -7},
        {"", 0},
        {"x", 0},
        {"2147483647", INT32_MAX},
        {"2147483648", INT32_MAX},
        {"-99999999999999999999", INT32_MIN},
        {"99999999999999999999", INT32_MAX},
        {"0x10", 0},
    };
    for (const auto &row : rows)
        EXPECT_EQ(text_to_int(row.text), row.expected) << '"' << row.text << '"';
}

#define REPLACEMENT "\xEF\xBF\xBD"

TEST(text, bytes_become_valid_utf8)
{
    using namespace std::string_literals;
    static const struct {
        std::string bytes, expected;
    } rows[] = {
        {"", ""},
        {"plain", "plain"},
        {"a\0b"s, "a" REPLACEMENT "b"},
        {"\xC3\xA9", "\xC3\xA9"},
        {"\xE2\x82\xAC", "\xE2\x82\xAC"},
        {"\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80"},
        {"\xF4\x8F\xBF\xBF", "\xF4\x8F\xBF\xBF"},
        {"\xFF", REPLACEMENT},
        {"\x80", REPLACEMENT},
        {"\xC0\x80", REPLACEMENT REPLACEMENT},                                 /* overlong NUL */
        {"\xC1\xBF", REPLACEMENT REPLACEMENT},                                 /* overlong */
        {"\xE0\x80\x80", REPLACEMENT REPLACEMENT REPLACEMENT},                 /* overlong */
        {"\xED\xA0\x80", REPLACEMENT REPLACEMENT REPLACEMENT},                 /* surrogate */
        {"\xF4\x90\x80\x80", REPLACEMENT REPLACEMENT REPLACEMENT REPLACEMENT}, /* beyond U+10FFFF */
        {"\xC3", REPLACEMENT},                                                 /* cut */
        {"\xE2\x82", REPLACEMENT REPLACEMENT},                                 /* cut */
        {"\xC3(", REPLACEMENT "("},
        {"a\xE2\x82\xACz", "a\xE2\x82\xACz"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(valid_utf8(row.bytes.data(), row.bytes.size()), row.expected)
            << testing::PrintToString(row.bytes);
}

TEST(text, characters_are_replaced_and_removed_in_place)
{
    char text[] = "a,b,,c";
    str_replace_char(text, ',', ';');
    EXPECT_STREQ(text, "a;b;;c");
    str_remove_char(text, ';');
    EXPECT_STREQ(text, "abc");
    str_remove_char(text, 'x');
    EXPECT_STREQ(text, "abc");
    str_replace_char(nullptr, 'a', 'b');
    str_remove_char(nullptr, 'a');
}

/* ---- cutting ---- */

TEST(utf8_border, never_cuts_a_character)
{
    const std::string text = "a\u00e4\u20ac\U0001F600z"; /* 1, 2, 3, 4 and 1 bytes */
    const size_t borders[] = {0, 1, 1, 3, 3, 3, 6, 6, 6, 6, 10, 11, 11, 11};
    for (size_t limit = 0; limit < sizeof(borders) / sizeof(borders[0]); limit++)
        EXPECT_EQ(utf8_border(text, limit), borders[limit]) << limit;
    EXPECT_EQ(utf8_border("", 0), 0u);
}

TEST(utf8_whole, leaves_an_unfinished_character_out)
{
    const std::string text = "a\u00e4\u20ac\U0001F600z"; /* 1, 2, 3, 4 and 1 bytes */
    const size_t whole[] = {0, 1, 1, 3, 3, 3, 6, 6, 6, 6, 10, 11};
    for (size_t length = 0; length <= text.size(); length++)
        EXPECT_EQ(utf8_whole(text.data(), length), whole[length]) << length;
}

TEST(utf8_whole, keeps_what_no_further_byte_can_finish)
{
    for (const char *bytes :
         {"a\x80", "a\x80\x80", "\x80\x80\x80\x80", "a\xC1", "a\xF5", "a\xFF\xFF", "\xC3\xA4\x80"})
        EXPECT_EQ(utf8_whole(bytes, strlen(bytes)), strlen(bytes)) << testing::PrintToString(bytes);
    EXPECT_EQ(utf8_whole("\xF0\x9F\x98", 3), 0u) << "less than one character";
}
