#include "discovery/http-header.h"

#include <cstring>
#include <memory>

#include <gtest/gtest.h>

#include "agent/da.h"
#include "tests/unit/support.h"

using namespace std::string_literals;

class http_header_test : public testing::Test {
protected:
    void SetUp() override { fresh_agent(); }
};

/* A copy of exactly these bytes, so that the sanitizer sees every step out of the range. */
struct exact_bytes {
    std::unique_ptr<char[]> bytes;
    int32_t length;

    explicit exact_bytes(const std::string &text)
        : bytes(new char[text.size()]), length(static_cast<int32_t>(text.size()))
    {
        memcpy(bytes.get(), text.data(), text.size());
    }
};

/* ---- the end of the headers ---- */

/* How many bytes the header part has, -1 when it does not end. The counted range is the text less
 * `uncounted`. */
static int header_length(const std::string &text, int32_t uncounted = 0)
{
    exact_bytes data(text + '\0');
    const char *end = nullptr;
    if (find_end_of_header(data.bytes.get(), data.length - 1 - uncounted, &end) != 0)
        return -1;
    return static_cast<int>(end - data.bytes.get());
}

TEST_F(http_header_test, end_of_header)
{
    struct {
        const char *text;
        int expected;
    } rows[] = {
        {"a: b\r\n\r\nbody", 8},
        {"\r\n\r\n", 4},
        {"a\r\r\n\r\nb", 6}, /* a carriage return too many */
        {"a\r\nb\r\n\r\n", 8},
        {"", -1},
        {"\r", -1},
        {"\r\n", -1}, /* nothing but a line end */
        {"\r\n\r", -1},
        {"\n\n", -1},
        {"a\n\nb", -1},
        {"\r\r\r\r", -1},
    };
    for (const auto &row : rows)
        EXPECT_EQ(row.expected, header_length(row.text)) << testing::PrintToString(row.text);
    EXPECT_TRUE(was_logged("Found end of http headers"));
}

TEST_F(http_header_test, only_the_first_byte_of_the_blank_line_has_to_be_counted)
{
    EXPECT_EQ(5, header_length("a\r\n\r\n", 3));
    EXPECT_EQ(-1, header_length("a\r\n\r\n", 4));
}

/* ---- the status line ---- */

static int is_302(const std::string &text)
{
    exact_bytes data(text);
    return find_HTTP_302_code(data.bytes.get(), data.length);
}

TEST_F(http_header_test, status_302)
{
    struct {
        std::string text;
        int expected;
    } rows[] = {
        {"HTTP/1.1 302 Found\r\n", 0},
        {"HTTP/1.1 302", 0}, /* no reason phrase */
        {"HTTP/1.1 302OK", 0},
        {"HTTP/1.1 3020", 0}, /* nothing behind the number is looked at */
        {"HTTP/1.1    302 Found", 0},
        {"HTTP/1.1302", 0},
        {"(TTP/1.1 302", 0},                             /* 'H' less 0x20 */
        {"HTTP\x0F"s + "1\x0E"s + "1 \x13\x10\x12"s, 0}, /* the second forms of "/", ".", and the digits */
        {"HTTP/\x11"s + ".\x11"s + " 302"s, 0},
        {"http/1.1 302 Found", -1},
        {"Http/1.1 302 Found", -1},
        {" HTTP/1.1 302 Found", -1}, /* must be the very first byte */
        {"\nHTTP/1.1 302 Found", -1},
        {"HTTP/1.0 302 Found", -1},
        {"HTTP/1.1 301 Moved", -1},
        {"HTTP/1.1 200 OK", -1},
        {"HTTP/1.1\t302", -1},
        {"HTTP/1.1 30", -1},
        {"HTTP/1.1   ", -1},
        {"HTTP/1.1", -1},
        {"HTTP", -1},
        {"H", -1},
        {" ", -1},
    };
    for (const auto &row : rows) {
        clear_log();
        EXPECT_EQ(row.expected, is_302(row.text)) << testing::PrintToString(row.text);
        EXPECT_EQ(row.expected == 0, was_logged("Found http 302 status code"))
            << testing::PrintToString(row.text);
    }
}

TEST_F(http_header_test, status_of_nothing)
{
    EXPECT_EQ(-1, find_HTTP_302_code(nullptr, 7));
    EXPECT_TRUE(was_logged("Received NULL buffer pointer 7 "));
    EXPECT_EQ(-1, find_HTTP_302_code("HTTP/1.1 302", 0));
    EXPECT_TRUE(was_logged("Received NULL buffer pointer 0 "));
    EXPECT_EQ(-1, find_HTTP_302_code("HTTP/1.1 302", -3));
    EXPECT_TRUE(was_logged("Received NULL buffer pointer -3 "));
}

/* ---- values ---- */

using value_scanner = int (*)(const char *, int32_t, const char **, int32_t *);

static const char NOT_FOUND[] = "(none)";

static std::string value_of(value_scanner scanner, const std::string &text)
{
    exact_bytes data(text);
    const char *value = nullptr;
    int32_t length = -7;
    if (scanner(data.bytes.get(), data.length, &value, &length) == 0)
        return std::string(value, static_cast<size_t>(length));
    EXPECT_EQ(nullptr, value) << "an output was written without a result";
    EXPECT_EQ(-7, length);
    return NOT_FOUND;
}

struct value_row {
    std::string text;
    std::string expected;
};

TEST_F(http_header_test, location)
{
    const value_row rows[] = {
        {"LOCATION: https://x/y\r\n", "https://x/y"},
        {"Location:https://x/y\r\n", "https://x/y"},
        {"lOcAtIoN:    https://x/y z\r\n", "https://x/y"},
        {"A: b\r\nLocation: https://x/y\r\nC: d\r\n", "https://x/y"},
        {"Location: https://x/y", "https://x/y"}, /* the end of the range ends it as well */
        {"Location: x\ny\r", "x\ny"},             /* a line feed is an ordinary character */
        {"Location: \r\n", ""},
        {"Location:\r\n", ""},
        {"Location\x1Ahttps://x/y\r\n", "https://x/y"}, /* the second form of ":" */
        {"X-Location: https://x/y\r", "https://x/y"},   /* anywhere in the range */
        {"Location: a\r\nLocation: b\r\n", "a"},
        {"llocation: lost\r\n", NOT_FOUND}, /* the false start swallowed the first letter */
        {"loc\r\nlocation: x\r", "x"},
        {"loclocation: lost\r", NOT_FOUND}, /* "loc" is met by an "l": it is the mismatching byte */
        {"locxlocation: x\r", "x"},
        {"Location : x\r\n", NOT_FOUND},
        {"Location:", NOT_FOUND},
        {"Location:   ", NOT_FOUND},
        {"Locatio", NOT_FOUND},
        {"l", NOT_FOUND},
        {"", NOT_FOUND},
    };
    for (const auto &row : rows)
        EXPECT_EQ(row.expected, value_of(find_http_location_header, row.text))
            << testing::PrintToString(row.text);
    EXPECT_TRUE(was_logged("Found Location Header"));
}

TEST_F(http_header_test, deviceid_cookie)
{
    const value_row rows[] = {
        {"Set-Cookie: deviceId=abc; Path=/\r\n", "abc"},
        {"set-cookie:DEVICEID=abc\r\n", "abc"},
        {"SET-COOKIE:   deviceId  =abc \r\n", "abc"},
        {"Set\rCookie: deviceId\x1D"
         "abc;",
         "abc"}, /* the second forms of "-" and "=" */
        {"Set-Cookie: a=1\r\nSet-Cookie: deviceId=abc\r\n", "abc"},
        {"Set-Cookie: deviceId=;", ""},
        {"Set-Cookie: deviceId= abc;", ""}, /* nothing is skipped behind the "=" */
        {"Set-Cookie: deviceId=a\nb;", "a\nb"},
        {"Set-Cookie: a=1; deviceId=abc\r\n", NOT_FOUND}, /* it has to come first */
        {"Set-Cookie: deviceId2=abc\r\n", NOT_FOUND},
        {"Cookie: deviceId=abc\r\n", NOT_FOUND},
        {"Set-Cookie: deviceId=abc", NOT_FOUND}, /* unlike a location it may not run to the end */
        {"Set-Cookie: deviceId=", NOT_FOUND},
        {"Set-Cookie: deviceId   ", NOT_FOUND},
        {"Set-Cookie: deviceI", NOT_FOUND},
        {"Set-Cookie:  ", NOT_FOUND},
        {"Set-Cookie:", NOT_FOUND},
        {"sset-cookie: deviceId=lost;", NOT_FOUND},
        {"", NOT_FOUND},
    };
    for (const auto &row : rows)
        EXPECT_EQ(row.expected, value_of(find_deviceid_cookie, row.text)) << testing::PrintToString(row.text);
    EXPECT_TRUE(logged().empty());
}

TEST_F(http_header_test, content_length)
{
    const int untouched = -99;
    struct {
        std::string text;
        int result;
        int number;
    } rows[] = {
        {"Content-Length: 27\r\n", 0, 27},
        {"CONTENT-LENGTH:27 \r\n", 0, 27},
        {"content\rlength: 27\r\n", 0, 27}, /* the second form of "-" */
        {"Content-Length: -5\r\n", 0, -5},
        {"Content-Length: 0\r\n", 0, 0},
        {"Content-Length: \r\n", 0, 0},
        {"Content-Length: abc\r\n", 0, 0},
        {"Content-Length: 12abc\r\n", 0, 12},
        {"Content-Length: 99999999999999999999\r\n", 0, INT32_MAX},
        {"Content-Length: " + std::string(300, '0') + "7\r\n", 0, 0}, /* only 255 characters are looked at */
        {"ccontent-length: 27\r\n", -1, untouched},
        {"Content-Length: 27", 0, untouched}, /* the range ends inside the value */
        {"Content-Length:  ", 0, untouched},
        {"Content-Length:", 0, untouched},
        {"Content-Lengt", -1, untouched},
        {"", -1, untouched},
    };
    for (const auto &row : rows) {
        exact_bytes data(row.text);
        int32_t number = untouched;
        EXPECT_EQ(row.result, find_content_length(data.bytes.get(), data.length, &number))
            << testing::PrintToString(row.text);
        EXPECT_EQ(row.number, number) << testing::PrintToString(row.text);
    }
    EXPECT_TRUE(was_logged("HTTP content-length is  27\n"));
}

/* Any bytes at all: the scanners stay in the range (the sanitizer watches) and find only what lies in it. */
TEST_F(http_header_test, random_bytes)
{
    da.debug_level = -1;
    const std::string alphabet = "HTP/1.302 locationset-kdvi=:lgh\r\n;\x1A\x0F\x0E\x11\0\xFF"s;
    unsigned seed = 20261120;
    for (int round = 0; round < 20000; round++) {
        std::string text(static_cast<size_t>(rand_r(&seed)) % 60, '\0');
        for (char &c : text)
            c = alphabet[static_cast<size_t>(rand_r(&seed)) % alphabet.size()];
        if (rand_r(&seed) % 2)
            text.insert(0, rand_r(&seed) % 2 ? "set-cookie:deviceid=" : "content-length:");
        header_length(text);
        is_302(text);
        value_of(find_http_location_header, text);
        value_of(find_deviceid_cookie, text);
        exact_bytes data(text);
        int32_t number;
        find_content_length(data.bytes.get(), data.length, &number);
    }
}
