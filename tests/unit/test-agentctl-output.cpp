#include "agentctl/output.h"

#include <filesystem>

#include <gtest/gtest.h>

#include "agentctl/local-socket.h"
#include "agentctl/log-file.h"
#include "agentctl/numbers.h"
#include "tests/unit/support.h"

TEST(agentctl_output, nothing_in_a_text_steers_a_terminal)
{
    EXPECT_EQ(printable("plain, caf\xC3\xA9\n\tnext"), "plain, caf\xC3\xA9\n\tnext");
    EXPECT_EQ(printable("a\x1b[2Jb\r\x7f\x07"), "a?[2Jb???");
    EXPECT_EQ(printable("c1 \xC2\x9B"
                        "2J, no c1 \xC2\xA0"),
              "c1 ?2J, no c1 \xC2\xA0");
    EXPECT_EQ(printable(std::string("nul\0x", 5)), "nul\xEF\xBF\xBDx");
    EXPECT_EQ(printable("\xFF\xC2"), "\xEF\xBF\xBD\xEF\xBF\xBD");
    EXPECT_EQ(printable_line("a\nb\tc"), "a b c");
}

TEST(agentctl_output, durations_in_their_largest_unit)
{
    EXPECT_EQ(duration_text(0), "0 seconds");
    EXPECT_EQ(duration_text(1), "1 second");
    EXPECT_EQ(duration_text(59), "59 seconds");
    EXPECT_EQ(duration_text(60), "1 minute");
    EXPECT_EQ(duration_text(7199), "1 hour");
    EXPECT_EQ(duration_text(86400 * 2), "2 days");
    EXPECT_NE(time_text(1000, 1060).find("(1 minute ago)"), std::string::npos);
    EXPECT_NE(time_text(1060, 1000).find("(in 1 minute)"), std::string::npos);
}

TEST(agentctl_output, numbers_are_whole_words_within_their_bounds)
{
    int32_t number = -1;
    EXPECT_TRUE(whole_number("0", 0, 5, &number));
    EXPECT_EQ(number, 0);
    EXPECT_TRUE(whole_number("5", 0, 5, &number));
    for (const char *word : {"", "6", "-1", " 1", "1 ", "1x", "x", "0x1", "99999999999999999999"})
        EXPECT_FALSE(whole_number(word, 0, 5, &number)) << word;
    EXPECT_EQ(number, 5);
}

TEST(agentctl_output, connections_of_a_socket_are_counted)
{
    const char table[] = "Num       RefCount Protocol Flags    Type St Inode Path\n"
                         "0000: 00000002 00000000 00010000 0005 01 100 /var/tmp/agent_cgiserver\n"
                         "0000: 00000003 00000000 00000000 0005 03 101 /var/tmp/agent_cgiserver\n"
                         "0000: 00000003 00000000 00000000 0005 03 102\n"
                         "0000: 00000003 00000000 00000000 0005 03 103 /var/tmp/agent_cgiserver2\n";
    EXPECT_EQ(connections_in(table, "/var/tmp/agent_cgiserver"), 1);
    EXPECT_EQ(connections_in("", "/var/tmp/agent_cgiserver"), 0);
}

TEST(agentctl_output, a_log_is_opened_behind_all_but_its_last_lines)
{
    followed_log log;
    log.path = "/tmp/some.log";
    const std::pair<std::string, std::string> texts[] = {
        {"a\nb\nc\n", "b\nc\n"}, {"a\nb\nc", "b\nc"},  {"a\n", "a\n"}, {"", ""},
        {"\n\n\n", "\n\n"},      {"b\nc\n", "b\nc\n"},
    };
    for (const auto &[text, last] : texts) {
        write_file(log.path, text);
        EXPECT_EQ(open_log(&log, 2), last) << text;
        EXPECT_EQ(read_new(&log), "");
        close_log(&log);
        EXPECT_EQ(open_log(&log, 0), "");
        close_log(&log);
    }
}

TEST(agentctl_output, a_log_that_comes_later_is_read_from_its_start)
{
    followed_log log;
    log.path = "/tmp/later.log";
    EXPECT_EQ(open_log(&log, 10), "");
    EXPECT_EQ(read_new(&log), "");
    write_file(log.path, "first\n");
    EXPECT_EQ(read_new(&log), "first\n");
    close_log(&log);
}

TEST(agentctl_output, a_rotation_loses_no_line)
{
    followed_log log;
    log.path = "/tmp/rotated.log";
    write_file(log.path, "seen\n");
    EXPECT_EQ(open_log(&log, 10), "seen\n");
    write_file(log.path, "seen\nlast of the old\n");
    std::filesystem::rename(log.path, log.path + ".old");
    EXPECT_EQ(read_new(&log), "last of the old\n");
    EXPECT_EQ(read_new(&log), "");
    write_file(log.path, "first of the new\n");
    EXPECT_EQ(read_new(&log), "first of the new\n");
    write_file(log.path, "first of the new\nmore\n");
    std::filesystem::rename(log.path, log.path + ".old");
    write_file(log.path, "another\n");
    EXPECT_EQ(read_new(&log), "more\nanother\n");
    write_file(log.path, "x\n");
    EXPECT_EQ(read_new(&log), "x\n") << "it was emptied";
    close_log(&log);
}
