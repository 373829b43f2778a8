#include "agent/state-file.h"

#include <cerrno>
#include <filesystem>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/unit/support.h"

#define FOLDER "/tmp/state"
#define STATE_FILE FOLDER "/value"

class state_file : public testing::Test {
protected:
    void SetUp() override
    {
        std::filesystem::remove_all(FOLDER);
        std::filesystem::create_directories(FOLDER);
    }

    /* Nothing but these names may be left. */
    static std::string names(void)
    {
        std::string all;
        for (const auto &entry : std::filesystem::directory_iterator(FOLDER))
            all += entry.path().filename().string() + " ";
        return all;
    }
};

TEST_F(state_file, writes_a_new_file)
{
    EXPECT_EQ(replace_file(STATE_FILE, "text"), 0);
    EXPECT_EQ(file_text(STATE_FILE), "text");
    EXPECT_EQ(names(), "value ");
}

TEST_F(state_file, replaces_a_longer_one)
{
    write_file(STATE_FILE, "a much longer text");
    EXPECT_EQ(replace_file(STATE_FILE, "new"), 0);
    EXPECT_EQ(file_text(STATE_FILE), "new");
    EXPECT_EQ(replace_file(STATE_FILE, ""), 0);
    EXPECT_EQ(file_text(STATE_FILE), "");
}

TEST_F(state_file, a_reader_of_the_old_file_still_sees_all_of_it)
{
    write_file(STATE_FILE, "old text");
    FILE *reader = fopen(STATE_FILE, "r");
    ASSERT_TRUE(reader);
    EXPECT_EQ(replace_file(STATE_FILE, "new"), 0);
    char text[32] = "";
    EXPECT_EQ(fread(text, 1, sizeof(text) - 1, reader), 8u);
    fclose(reader);
    EXPECT_STREQ(text, "old text");
}

TEST_F(state_file, keeps_bytes_as_they_are)
{
    std::string bytes("a\0b\n%s\xFF", 7);
    EXPECT_EQ(replace_file(STATE_FILE, bytes), 0);
    EXPECT_EQ(file_text(STATE_FILE), bytes);
}

TEST_F(state_file, a_text_of_many_pages_is_whole)
{
    std::string text(3 * 1024 * 1024, 'x');
    EXPECT_EQ(replace_file(STATE_FILE, text), 0);
    EXPECT_EQ(file_text(STATE_FILE), text);
}

TEST_F(state_file, gives_the_mode)
{
    mode_t before = umask(022);
    struct stat status;
    EXPECT_EQ(replace_file(STATE_FILE, "x"), 0);
    ASSERT_EQ(stat(STATE_FILE, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644u);
    EXPECT_EQ(replace_file(STATE_FILE, "x", 0600), 0);
    ASSERT_EQ(stat(STATE_FILE, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
    umask(before);
}

TEST_F(state_file, does_not_write_through_a_link_in_its_place)
{
    write_file(FOLDER "/victim", "untouched");
    std::filesystem::create_symlink(FOLDER "/victim", STATE_FILE);
    EXPECT_EQ(replace_file(STATE_FILE, "text"), 0);
    EXPECT_EQ(file_text(FOLDER "/victim"), "untouched");
    EXPECT_FALSE(std::filesystem::is_symlink(STATE_FILE));
    EXPECT_EQ(file_text(STATE_FILE), "text");
}

TEST_F(state_file, does_not_write_through_a_link_beside_it)
{
    write_file(FOLDER "/victim", "untouched");
    std::filesystem::create_symlink(FOLDER "/victim", STATE_FILE ".new");
    EXPECT_EQ(replace_file(STATE_FILE, "text"), 0);
    EXPECT_EQ(file_text(FOLDER "/victim"), "untouched");
    EXPECT_EQ(file_text(STATE_FILE), "text");
}

TEST_F(state_file, a_leftover_of_a_kill_does_not_matter)
{
    write_file(STATE_FILE ".new", "half a te");
    EXPECT_EQ(replace_file(STATE_FILE, "text"), 0);
    EXPECT_EQ(file_text(STATE_FILE), "text");
    EXPECT_EQ(names(), "value ");
}

TEST_F(state_file, a_missing_folder_fails)
{
    errno = 0;
    EXPECT_EQ(replace_file(FOLDER "/absent/value", "x"), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(state_file, what_cannot_be_replaced_stays_and_nothing_is_left_beside_it)
{
    std::filesystem::create_directories(STATE_FILE "/occupied");
    errno = 0;
    EXPECT_EQ(replace_file(STATE_FILE, "x"), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_TRUE(path_exists(STATE_FILE "/occupied"));
    EXPECT_EQ(names(), "value ");
}

TEST_F(state_file, a_full_medium_keeps_the_old_text)
{
    ASSERT_EQ(system("mkdir " FOLDER "/small && mount -t tmpfs -o size=64k tmpfs " FOLDER "/small"), 0);
    ASSERT_EQ(replace_file(FOLDER "/small/value", "old"), 0);
    errno = 0;
    EXPECT_EQ(replace_file(FOLDER "/small/value", std::string(256 * 1024, 'x')), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(file_text(FOLDER "/small/value"), "old");
    EXPECT_FALSE(path_exists(FOLDER "/small/value.new"));
    EXPECT_EQ(system("umount " FOLDER "/small"), 0);
}

TEST_F(state_file, a_stranger_in_the_place_beside_does_not_stop_it)
{
    std::filesystem::create_directories(STATE_FILE ".new/occupied");
    EXPECT_EQ(replace_file(STATE_FILE, "text", 0640), 0);
    EXPECT_EQ(file_text(STATE_FILE), "text");
    struct stat status;
    ASSERT_EQ(stat(STATE_FILE, &status), 0);
    EXPECT_EQ(status.st_mode & 0777u, 0640u);
    EXPECT_EQ(names(), "value value.new ");
}

/* ---- files that others wrote ---- */

TEST_F(state_file, adopts_a_file)
{
    write_file(STATE_FILE, "old");
    write_file(STATE_FILE ".new", "new");
    EXPECT_EQ(adopt_file(STATE_FILE ".new", STATE_FILE), 0);
    EXPECT_EQ(file_text(STATE_FILE), "new");
    EXPECT_EQ(names(), "value ");
}

TEST_F(state_file, adopts_nothing_but_a_plain_file)
{
    write_file(STATE_FILE, "old");
    errno = 0;
    EXPECT_EQ(adopt_file(STATE_FILE ".new", STATE_FILE), -1);
    EXPECT_EQ(errno, ENOENT);
    std::filesystem::create_symlink("value", STATE_FILE ".new");
    EXPECT_EQ(adopt_file(STATE_FILE ".new", STATE_FILE), -1) << "a link to itself would lose the file";
    std::filesystem::remove(STATE_FILE ".new");
    ASSERT_EQ(mkfifo(STATE_FILE ".new", 0600), 0);
    EXPECT_EQ(adopt_file(STATE_FILE ".new", STATE_FILE), -1);
    std::filesystem::remove(STATE_FILE ".new");
    std::filesystem::create_directories(STATE_FILE ".new");
    EXPECT_EQ(adopt_file(STATE_FILE ".new", STATE_FILE), -1);
    EXPECT_EQ(file_text(STATE_FILE), "old");
}
