#include "transfer/answer.h"

#include <random>

#include <gtest/gtest.h>

/* An answer from its lines; a line end is added to each. */
static answer read_answer(const std::vector<std::string> &lines)
{
    answer found;
    for (const std::string &line : lines) {
        std::string whole = line + "\r\n";
        (void)answer_take_line(&found, whole.data(), whole.size());
    }
    return found;
}

TEST(transfer_answer, takes_what_it_knows_whatever_the_case_and_the_blanks)
{
    answer found = read_answer({"HTTP/1.1 206 Partial Content", "content-LENGTH:  42 \t", "ETag:\"v1\"",
                                "Last-Modified: Fri, 20 Nov 2026 09:00:00 GMT", "DATE: now", "X-Other: 5",
                                "Content-Range: bytes 1-42/43", "transfer-encoding: Chunked"});
    EXPECT_EQ(found.status, 206);
    EXPECT_EQ(found.status_text, "206 Partial Content");
    EXPECT_EQ(found.length, 42);
    EXPECT_EQ(found.etag, "\"v1\"");
    EXPECT_EQ(found.last_modified, "Fri, 20 Nov 2026 09:00:00 GMT");
    EXPECT_EQ(found.date, "now");
    EXPECT_EQ(found.content_range, "bytes 1-42/43");
    EXPECT_TRUE(found.chunked);
    EXPECT_FALSE(found.coded || found.contradicts || found.location);
}

TEST(transfer_answer, an_empty_line_ends_it_and_a_status_line_begins_another)
{
    answer found;
    auto take = [&](const char *line) { return answer_take_line(&found, line, strlen(line)); };
    EXPECT_FALSE(take("HTTP/1.1 302 Found\r\n"));
    EXPECT_FALSE(take("Location: /x\r\n"));
    EXPECT_TRUE(take("\r\n"));
    EXPECT_TRUE(answer_is_redirect(found));
    EXPECT_FALSE(take("HTTP/1.1 200 OK\n"));
    EXPECT_FALSE(answer_is_redirect(found));
    EXPECT_FALSE(found.location);
    EXPECT_TRUE(take("\n"));
}

TEST(transfer_answer, a_length_that_cannot_be_right_contradicts)
{
    for (const char *value : {"-1", "+5", "5 5", "0x10", "", "1234567890123456789", "5,5", "5\t6", "five"})
        EXPECT_TRUE(read_answer({"HTTP/1.1 200 OK", std::string("Content-Length: ") + value}).contradicts)
            << value;
    EXPECT_TRUE(read_answer({"HTTP/1.1 200 OK", "Content-Length: 5", "Content-Length: 6"}).contradicts);
    EXPECT_TRUE(
        read_answer({"HTTP/1.1 200 OK", "Content-Length: " + std::string(HEADER_VALUE_LIMIT + 1, '0')})
            .contradicts)
        << "however long it is";
    answer twice = read_answer({"HTTP/1.1 200 OK", "Content-Length: 5", "Content-Length: 5"});
    EXPECT_FALSE(twice.contradicts);
    EXPECT_EQ(twice.length, 5);
    EXPECT_EQ(read_answer({"HTTP/1.1 200 OK", "Content-Length: 123456789012345678"}).length,
              123456789012345678);
}

TEST(transfer_answer, transfer_codings_other_than_chunked_are_told)
{
    EXPECT_FALSE(read_answer({"HTTP/1.1 200 OK", "Transfer-Encoding: identity"}).coded);
    for (const char *value : {"gzip", "gzip, chunked", "chunked, gzip", "", "x"})
        EXPECT_TRUE(read_answer({"HTTP/1.1 200 OK", std::string("Transfer-Encoding: ") + value}).coded)
            << value;
    EXPECT_TRUE(read_answer({"HTTP/1.1 200 OK", "Transfer-Encoding: " + std::string(5000, 'x')}).coded);
}

TEST(transfer_answer, lines_that_are_none_are_passed_over)
{
    answer found =
        read_answer({"HTTP/1.1 200 OK", "Content-Length", ": 7", " Content-Length: 8", "\tETag: \"x\"",
                     "ETag : \"y\"", "ETag: " + std::string(HEADER_VALUE_LIMIT + 1, 'z')});
    EXPECT_EQ(found.length, -1);
    EXPECT_EQ(found.etag, "");
    for (const char *line : {"HTTP/1.1", "HTTP/1.1 ", "HTTP/1.1 x", "HTTP/1.1 -20 x", "HTTP/"})
        EXPECT_EQ(read_answer({line}).status, 0) << line;
}

TEST(transfer_answer, redirects_and_preliminaries)
{
    EXPECT_FALSE(answer_is_redirect(read_answer({"HTTP/1.1 302 Found", "Location: "})));
    EXPECT_FALSE(answer_is_redirect(read_answer({"HTTP/1.1 201 Created", "Location: /x"})));
    EXPECT_TRUE(answer_is_redirect(read_answer({"HTTP/1.1 399 x", "Location: " + std::string(9000, 'x')})));
    EXPECT_TRUE(answer_is_preliminary(read_answer({"HTTP/1.1 100 Continue"})));
    EXPECT_FALSE(answer_is_preliminary(read_answer({"HTTP/1.1 200 OK"})));
    for (int status : {408, 425, 429, 500, 503, 599})
        EXPECT_TRUE(answer_is_temporary(status)) << status;
    for (int status : {0, 200, 301, 400, 404, 410, 416, 499})
        EXPECT_FALSE(answer_is_temporary(status)) << status;
}

TEST(transfer_answer, content_ranges)
{
    int64_t first = 0;
    int64_t last = 0;
    int64_t total = 0;
    EXPECT_EQ(parse_content_range("bytes 100-4999/5000", &first, &last, &total), 0);
    EXPECT_EQ(first, 100);
    EXPECT_EQ(last, 4999);
    EXPECT_EQ(total, 5000);
    EXPECT_EQ(parse_content_range("Bytes 0-0/1", &first, &last, &total), 0);
    for (const char *text : {"", "bytes", "bytes ", "bytes 1-2", "bytes 1-2/*", "bytes */5", "bytes 2-1/5",
                             "bytes 1-5/5", "bytes -1/5", "bytes 1-/5", "bytes 1 - 2/5", "octets 1-2/5",
                             "bytes 1-2/5 ", "bytes 1-99999999999999999999/5", "bytes/1-2", "bytes 1/2-3"})
        EXPECT_EQ(parse_content_range(text, &first, &last, &total), -1) << text;
}

TEST(transfer_answer, any_bytes_at_all_are_survived)
{
    std::mt19937 random(5);
    const std::string pieces[] = {"HTTP/1.1 ", "200", "Content-Length:",       "\r\n",
                                  " ",         ":",   "Transfer-Encoding: ",   std::string(1, '\0'),
                                  "\xFF",      "-",   "Content-Range: bytes ", "/",
                                  "ETag: \""};
    for (int round = 0; round < 20000; round++) {
        answer found;
        for (int lines = 0; lines < 4; lines++) {
            std::string line;
            for (auto length = random() % 8; length > 0; length--)
                line += random() % 4 ? pieces[random() % std::size(pieces)]
                                     : std::string(1, static_cast<char>(random()));
            (void)answer_take_line(&found, line.data(), line.size());
        }
        int64_t numbers[3];
        (void)parse_content_range(found.content_range, &numbers[0], &numbers[1], &numbers[2]);
        EXPECT_TRUE(found.length >= -1 && found.status >= 0 && found.status <= 999);
    }
}
