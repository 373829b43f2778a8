#include "agent/debug-log.h"

#include <cerrno>
#include <ctime>
#include <filesystem>

#include <gtest/gtest.h>
#include <unistd.h>

#include "agent/da.h"
#include "agent/hooks.h"
#include "tests/unit/support.h"

#define OLD_LOG_FILE AGENT_LOG_FILE ".old"

static std::vector<std::string> streamed;

static void keep_line(const char *line) { streamed.push_back(line); }

class debug_log_test : public testing::Test {
protected:
    void SetUp() override
    {
        fresh_agent();
        std::filesystem::remove_all(AGENT_LOG_FILE);
        std::filesystem::remove_all(OLD_LOG_FILE);
        streamed.clear();
        gPid = 4711;
    }
    void TearDown() override { std::filesystem::remove_all(AGENT_LOG_FILE); }

    /* The prefix of a line: time stamp, process id, module and line. */
    static std::string without_time(const std::string &text)
    {
        std::string shape = text.substr(0, 20);
        for (char &c : shape)
            c = isdigit(static_cast<unsigned char>(c)) ? '0' : c;
        return shape == "0000-00-00 00:00:00 " ? text.substr(20) : "no time stamp in: " + text;
    }
};

TEST_F(debug_log_test, a_line_has_time_process_module_and_message)
{
    testing::internal::CaptureStdout();
    EXPECT_EQ(debug_log("wifi.c", 42, LOG_FAILURE, "%s: number %d", "function", 7), 0);
    std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(without_time(file_text(AGENT_LOG_FILE)), "4711 wifi.c:42:function: number 7\n");
    EXPECT_EQ(printed, file_text(AGENT_LOG_FILE)) << "standard output gets a copy";
}

TEST_F(debug_log_test, the_time_is_local)
{
    setenv("TZ", "UTC", 1);
    tzset();
    char before[20], stamp[20], after[20];
    time_t now = time(nullptr);
    strftime(before, sizeof(before), "%F %H:%M:%S", std::gmtime(&now));
    log_time_stamp(stamp);
    now = time(nullptr);
    strftime(after, sizeof(after), "%F %H:%M:%S", std::gmtime(&now));
    EXPECT_LE(std::string(before), stamp);
    EXPECT_LE(std::string(stamp), after);
    setenv("TZ", "XYZ-14", 1);
    tzset();
    char elsewhere[20];
    log_time_stamp(elsewhere);
    EXPECT_GT(std::string(elsewhere), after) << "fourteen hours ahead";
    setenv("TZ", "UTC", 1);
    tzset();
}

TEST_F(debug_log_test, a_filtered_line_writes_nothing_and_returns_1)
{
    da.debug_level = 2;
    hooks.append_logs = keep_line;
    testing::internal::CaptureStdout();
    EXPECT_EQ(debug_log("wifi.c", 1, 3, "hidden"), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_FALSE(path_exists(AGENT_LOG_FILE));
    EXPECT_TRUE(streamed.empty());
    EXPECT_EQ(debug_log("wifi.c", 1, 2, "shown"), 0);
    EXPECT_TRUE(was_logged("shown"));
}

TEST_F(debug_log_test, any_level_number_passes_a_higher_threshold)
{
    da.debug_level = 7;
    EXPECT_EQ(debug_log("wifi.c", 1, 6, "shown"), 0);
    EXPECT_TRUE(was_logged("shown"));
}

TEST_F(debug_log_test, lines_are_appended)
{
    debug_log("wifi.c", 1, 0, "one");
    debug_log("wifi.c", 2, 0, "two");
    EXPECT_EQ(logged(), (std::vector<std::string>{"wifi.c:one", "wifi.c:two"}));
}

TEST_F(debug_log_test, a_line_of_any_length_is_cut_to_1023_characters)
{
    debug_log("wifi.c", 1, 0, "%s", std::string(5000, 'x').c_str());
    std::string text = file_text(AGENT_LOG_FILE);
    EXPECT_EQ(text.size(), 1024u) << "1023 characters and the newline";
    EXPECT_EQ(text.substr(1020), "xxx\n");
}

TEST_F(debug_log_test, a_module_name_that_fills_the_line_is_cut_too)
{
    debug_log(std::string(2000, 'm').c_str(), 1, 0, "%s", "lost");
    EXPECT_EQ(file_text(AGENT_LOG_FILE).size(), 1024u);
}

TEST_F(debug_log_test, a_log_of_102400_bytes_is_not_rotated)
{
    write_file(AGENT_LOG_FILE, std::string(102400, '.'));
    debug_log("wifi.c", 1, 0, "next");
    EXPECT_FALSE(path_exists(OLD_LOG_FILE));
    EXPECT_GT(file_text(AGENT_LOG_FILE).size(), 102400u);
}

TEST_F(debug_log_test, a_log_of_102401_bytes_is_moved_away_before_the_line)
{
    write_file(AGENT_LOG_FILE, std::string(102401, '.'));
    write_file(OLD_LOG_FILE, "older");
    debug_log("wifi.c", 1, 0, "next");
    EXPECT_EQ(file_text(OLD_LOG_FILE), std::string(102401, '.')) << "an older one is replaced";
    EXPECT_EQ(without_time(file_text(AGENT_LOG_FILE)), "4711 wifi.c:1:next\n");
}

TEST_F(debug_log_test, a_log_that_cannot_be_opened_is_no_failure)
{
    std::filesystem::create_directories(AGENT_LOG_FILE);
    hooks.append_logs = keep_line;
    testing::internal::CaptureStdout();
    EXPECT_EQ(debug_log("wifi.c", 1, 0, "lost"), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_TRUE(streamed.empty());
}

TEST_F(debug_log_test, logging_leaves_errno_alone)
{
    write_file(AGENT_LOG_FILE, std::string(102401, '.'));
    errno = EXDEV;
    debug_log("wifi.c", 1, 0, "next");
    EXPECT_EQ(errno, EXDEV);
    std::filesystem::remove(AGENT_LOG_FILE);
    std::filesystem::create_directories(AGENT_LOG_FILE);
    errno = EXDEV;
    debug_log("wifi.c", 1, 0, "lost");
    EXPECT_EQ(errno, EXDEV);
}

TEST_F(debug_log_test, the_stream_gets_the_whole_line_without_a_newline)
{
    hooks.append_logs = keep_line;
    debug_log("common.c", 9, 3, "streamed");
    ASSERT_EQ(streamed.size(), 1u);
    EXPECT_EQ(without_time(streamed[0]), "4711 common.c:9:streamed");
}

static void log_while_streaming(const char *line)
{
    streamed.push_back(line);
    debug_log("log.c", 1, 0, "sending failed");
}

TEST_F(debug_log_test, a_line_logged_while_streaming_goes_to_the_file_only)
{
    hooks.append_logs = log_while_streaming;
    debug_log("wifi.c", 1, 0, "first");
    EXPECT_EQ(streamed.size(), 1u);
    EXPECT_TRUE(was_logged("sending failed"));
    debug_log("wifi.c", 1, 0, "second");
    EXPECT_EQ(streamed.size(), 2u) << "the next line is streamed again";
}

TEST_F(debug_log_test, lines_about_the_streaming_go_to_the_file_only)
{
    hooks.append_logs = keep_line;
    {
        log_file_only quiet;
        {
            log_file_only more;
            debug_log("log.c", 1, 0, "one");
        }
        debug_log("log.c", 2, 0, "two");
    }
    EXPECT_TRUE(streamed.empty());
    EXPECT_EQ(logged(), (std::vector<std::string>{"log.c:one", "log.c:two"}));
    debug_log("log.c", 3, 0, "three");
    EXPECT_EQ(streamed.size(), 1u);
}

TEST_F(debug_log_test, a_childs_line_goes_to_the_file_only)
{
    hooks.append_logs = [](const char *) { _exit(1); };
    EXPECT_EXIT(
        {
            log_set_child();
            debug_log("wifi.c", 1, 0, "from the child");
            _exit(was_logged("from the child") ? 0 : 2);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(debug_log_test, the_log_macro_names_module_and_line)
{
#define MODULE "discover-orv.c"
    int line = __LINE__ + 1;
    LOG(LOG_EVENT, "from a macro");
    EXPECT_EQ(without_time(file_text(AGENT_LOG_FILE)),
              "4711 discover-orv.c:" + std::to_string(line) + ":from a macro\n");
}
