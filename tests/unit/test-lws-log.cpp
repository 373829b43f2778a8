#include "agent/lws-log.h"

#include <filesystem>

#include <gtest/gtest.h>

#include "agent/da.h"
#include "agent/debug-log.h"
#include "agent/hooks.h"
#include "tests/unit/support.h"

enum { LIB_ERROR = 1, LIB_WARNING = 2, LIB_NOTICE = 4, LIB_INFO = 8, LIB_DEBUG = 16 };

class lws_log_test : public testing::Test {
protected:
    void SetUp() override
    {
        fresh_agent();
        std::filesystem::remove_all(LWS_LOG_FILE);
        std::filesystem::remove_all(LWS_LOG_FILE ".old");
    }
    void TearDown() override { std::filesystem::remove_all(LWS_LOG_FILE); }

    /* What stands behind the time stamp and the colon. */
    static std::string message(const std::string &text)
    {
        std::string shape = text.substr(0, 20);
        for (char &c : shape)
            c = isdigit(static_cast<unsigned char>(c)) ? '0' : c;
        return shape == "0000-00-00 00:00:00:" ? text.substr(20) : "no time stamp in: " + text;
    }

    static bool passes(int debug_level, int library_level)
    {
        std::filesystem::remove_all(LWS_LOG_FILE);
        da.debug_level = debug_level;
        lws_log_hook(library_level, "message");
        return path_exists(LWS_LOG_FILE);
    }
};

TEST_F(lws_log_test, a_line_has_time_and_message)
{
    da.debug_level = 0;
    testing::internal::CaptureStdout();
    lws_log_hook(LIB_ERROR, "connect failed");
    EXPECT_EQ(message(file_text(LWS_LOG_FILE)), "LWS: connect failed\n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), file_text(LWS_LOG_FILE));
}

TEST_F(lws_log_test, classes_pass_by_level)
{
    static const struct {
        int debug_level;
        bool error, notice, info, debug;
    } rows[] = {
        {-1, true, false, false, false}, {0, true, false, false, false}, {1, true, true, false, false},
        {2, true, true, true, false},    {3, true, true, true, true},    {7, true, true, true, true},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE("level " + std::to_string(row.debug_level));
        if (row.debug_level >= 0) {
            EXPECT_EQ(passes(row.debug_level, LIB_ERROR), row.error);
        }
        EXPECT_EQ(passes(row.debug_level, LIB_NOTICE), row.notice);
        EXPECT_EQ(passes(row.debug_level, LIB_INFO), row.info);
        EXPECT_EQ(passes(row.debug_level, LIB_DEBUG), row.debug);
        EXPECT_FALSE(passes(row.debug_level, LIB_WARNING)) << "warnings never pass";
    }
}

TEST_F(lws_log_test, the_library_is_asked_for_all_but_warnings)
{
    EXPECT_EQ(LWS_LOG_MASK, LIB_ERROR | LIB_NOTICE | LIB_INFO | LIB_DEBUG);
}

TEST_F(lws_log_test, filters_by_its_own_level)
{
    da.debug_level = 0;
    lws_log(1, "hidden");
    EXPECT_FALSE(path_exists(LWS_LOG_FILE));
    lws_log(0, "%s %d", "shown", 1);
    EXPECT_EQ(message(file_text(LWS_LOG_FILE)), "shown 1\n");
}

TEST_F(lws_log_test, one_newline_ends_a_line)
{
    lws_log_hook(LIB_ERROR, "with newline\n");
    EXPECT_EQ(message(file_text(LWS_LOG_FILE)), "LWS: with newline\n");
}

TEST_F(lws_log_test, newlines_inside_a_message_stay)
{
    lws_log_hook(LIB_ERROR, "one\ntwo\n");
    EXPECT_EQ(message(file_text(LWS_LOG_FILE)), "LWS: one\ntwo\n");
}

TEST_F(lws_log_test, percent_signs_of_the_library_are_not_interpreted)
{
    lws_log_hook(LIB_ERROR, "100%s %n");
    EXPECT_EQ(message(file_text(LWS_LOG_FILE)), "LWS: 100%s %n\n");
}

TEST_F(lws_log_test, rotates_at_102401_bytes)
{
    write_file(LWS_LOG_FILE, std::string(102400, '.'));
    lws_log_hook(LIB_ERROR, "x");
    EXPECT_FALSE(path_exists(LWS_LOG_FILE ".old"));
    write_file(LWS_LOG_FILE, std::string(102401, '.'));
    lws_log_hook(LIB_ERROR, "next");
    EXPECT_EQ(file_text(LWS_LOG_FILE ".old"), std::string(102401, '.'));
    EXPECT_EQ(message(file_text(LWS_LOG_FILE)), "LWS: next\n");
}

TEST_F(lws_log_test, lines_are_cut_to_1023_characters)
{
    lws_log_hook(LIB_ERROR, std::string(3000, 'y').c_str());
    EXPECT_EQ(file_text(LWS_LOG_FILE).size(), 1024u);
}

TEST_F(lws_log_test, neither_the_agents_log_nor_the_stream_sees_them)
{
    static int lines;
    lines = 0;
    hooks.append_logs = [](const char *) { lines++; };
    lws_log_hook(LIB_ERROR, "x");
    EXPECT_EQ(lines, 0);
    EXPECT_TRUE(logged().empty());
}
