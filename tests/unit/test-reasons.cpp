#include "agent/reasons.h"

#include <ctime>
#include <filesystem>

#include <gtest/gtest.h>

#include "agent/da.h"
#include "tests/unit/support.h"

#define TEST_FILE "/mnt/flash/.test_reason"

class reasons : public testing::Test {
protected:
    void SetUp() override
    {
        fresh_agent();
        std::filesystem::remove_all(TEST_FILE);
    }
};

TEST_F(reasons, gives_time_and_text)
{
    write_file(TEST_FILE, "1700000000:DEV_REBOOT");
    char reason[REASON_SIZE] = "";
    EXPECT_EQ(get_reason(TEST_FILE, reason), 1700000000);
    EXPECT_STREQ(reason, "DEV_REBOOT");
}

TEST_F(reasons, logs_time_in_words)
{
    setenv("TZ", "UTC", 1);
    tzset();
    write_file(TEST_FILE, "1700000000:DEV_REBOOT\n");
    char reason[REASON_SIZE] = "";
    get_reason(TEST_FILE, reason);
    EXPECT_STREQ(reason, "DEV_REBOOT") << "one trailing newline is dropped";
    EXPECT_TRUE(was_logged("get_reason: reason [DEV_REBOOT] time=1700000000(Tue Nov 14 22:13:20 2023\n)"))
        << file_text("/var/log/device-agent.log");
}

TEST_F(reasons, drops_only_one_newline)
{
    write_file(TEST_FILE, "1:two\n\n");
    char reason[REASON_SIZE] = "";
    get_reason(TEST_FILE, reason);
    EXPECT_STREQ(reason, "two\n");
}

TEST_F(reasons, cuts_a_reason_of_200_to_129)
{
    write_file(TEST_FILE, "1700000000:" + std::string(200, 'r'));
    char reason[REASON_SIZE] = "";
    EXPECT_EQ(get_reason(TEST_FILE, reason), 1700000000);
    EXPECT_EQ(std::string(reason), std::string(129, 'r'));
    EXPECT_TRUE(was_logged("reason too long (129), truncating"));
}

TEST_F(reasons, keeps_a_reason_of_129)
{
    write_file(TEST_FILE, "1700000000:" + std::string(129, 'r'));
    char reason[REASON_SIZE] = "";
    get_reason(TEST_FILE, reason);
    EXPECT_EQ(std::string(reason), std::string(129, 'r'));
    EXPECT_FALSE(was_logged("reason too long (129), truncating"));
}

TEST_F(reasons, later_colons_belong_to_the_reason)
{
    write_file(TEST_FILE, "1700000000:a:b");
    char reason[REASON_SIZE] = "";
    EXPECT_EQ(get_reason(TEST_FILE, reason), 1700000000);
    EXPECT_STREQ(reason, "a:b");
}

TEST_F(reasons, missing_file_leaves_the_text_alone_and_logs_nothing)
{
    char reason[REASON_SIZE] = "before";
    EXPECT_EQ(get_reason(TEST_FILE, reason), 0);
    EXPECT_STREQ(reason, "before");
    EXPECT_TRUE(logged().empty());
}

TEST_F(reasons, without_a_colon_only_the_time_is_read)
{
    write_file(TEST_FILE, "1700000000");
    char reason[REASON_SIZE] = "before";
    EXPECT_EQ(get_reason(TEST_FILE, reason), 1700000000);
    EXPECT_STREQ(reason, "before");
}

TEST_F(reasons, cuts_a_long_time_stamp_to_eleven_characters)
{
    write_file(TEST_FILE, "0001700000099999:x");
    char reason[REASON_SIZE] = "";
    EXPECT_EQ(get_reason(TEST_FILE, reason), 17000000);
    EXPECT_STREQ(reason, "x");
    for (const char *line : {"Timestamp too long (11), truncating", "Timestamp too long (15), truncating"})
        EXPECT_TRUE(was_logged(line)) << line;
    EXPECT_FALSE(was_logged("Timestamp too long (16), truncating"));
}

TEST_F(reasons, an_empty_reason_leaves_the_text_alone)
{
    write_file(TEST_FILE, "17:");
    char reason[REASON_SIZE] = "";
    EXPECT_EQ(get_reason(TEST_FILE, reason), 17);
    EXPECT_STREQ(reason, "");
}

TEST_F(reasons, saving_replaces_the_file_without_a_newline)
{
    write_file(TEST_FILE, "1:older and longer than what comes now");
    time_t before = time(nullptr);
    EXPECT_EQ(save_reason(TEST_FILE, "DEV_PING_TIMEOUT"), 0);
    std::string text = file_text(TEST_FILE);
    long saved = strtol(text.c_str(), nullptr, 10);
    EXPECT_EQ(text, std::to_string(saved) + ":DEV_PING_TIMEOUT");
    EXPECT_GE(saved, before);
    EXPECT_LE(saved, time(nullptr));
    EXPECT_TRUE(was_logged("Saving reason string [" + text + "]"));
}

TEST_F(reasons, what_is_saved_is_read_back)
{
    ASSERT_EQ(save_reason(TEST_FILE, "DEV_CFG_UPDATE"), 0);
    char reason[REASON_SIZE] = "";
    EXPECT_GE(get_reason(TEST_FILE, reason), 1700000000);
    EXPECT_STREQ(reason, "DEV_CFG_UPDATE");
}

TEST_F(reasons, an_unwritable_file_is_logged)
{
    EXPECT_EQ(save_reason("/mnt/flash/no-such-folder/reason", "x"), -1);
    EXPECT_TRUE(was_logged("save_reason: Failed to open file for writing"));
}

static void never_called(void *) { ADD_FAILURE() << "the timer was to be deleted"; }

TEST_F(reasons, deleting_the_controller_update_timer_twice_is_harmless)
{
    orv_upd_timer = ev_add_timer(never_called, nullptr, 60, 0);
    ASSERT_EQ(ev_count_timers(), 1);
    del_orv_upd_timer();
    EXPECT_EQ(ev_count_timers(), 0);
    EXPECT_EQ(orv_upd_timer, nullptr);
    del_orv_upd_timer();
    EXPECT_EQ(orv_upd_timer, nullptr);
}
