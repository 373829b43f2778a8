#include "transfer/image-file.h"

#include <cerrno>
#include <cstdarg>
#include <filesystem>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "tests/unit/support.h"

#define NEW_PATH IMAGE_PATH ".new"

static bool knows_nameless_files = true;

extern "C" int __real_open(const char *path, int flags, ...);

/* A file system that knows no files without a name, when the test says so. */
extern "C" int __wrap_open(const char *path, int flags, ...)
{
    va_list more;
    va_start(more, flags);
    mode_t mode = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(more, mode_t) : 0;
    va_end(more);
    if ((flags & O_TMPFILE) == O_TMPFILE && !knows_nameless_files) {
        errno = EOPNOTSUPP;
        return -1;
    }
    return __real_open(path, flags, mode);
}

static int strangers; /* so many times more somebody lays a file in the image's place at the last moment */

extern "C" int __real_linkat(int from_folder, const char *from, int folder, const char *path, int flags);

extern "C" int __wrap_linkat(int from_folder, const char *from, int folder, const char *path, int flags)
{
    if (strangers > 0) {
        strangers--;
        write_file(path, "somebody's");
    }
    return __real_linkat(from_folder, from, folder, path, flags);
}

class image_file : public testing::TestWithParam<bool> {
protected:
    void SetUp() override
    {
        knows_nameless_files = GetParam();
        std::filesystem::remove_all(IMAGE_PATH);
        std::filesystem::remove_all(NEW_PATH);
    }
    void TearDown() override { image_abandon(); }

    /* Begins one with this text in it. */
    static void begin(const std::string &text)
    {
        ASSERT_EQ(image_begin(), 0);
        ASSERT_EQ(image_append(text.data(), text.size()), 0);
    }
};

TEST_P(image_file, has_its_name_when_it_is_complete_and_not_before)
{
    begin("first ");
    ASSERT_EQ(image_append("second", 6), 0);
    EXPECT_EQ(image_size(), 12);
    EXPECT_FALSE(path_exists(IMAGE_PATH));
    EXPECT_EQ(path_exists(NEW_PATH), !GetParam());
    EXPECT_EQ(image_publish(), 0);
    EXPECT_EQ(file_text(IMAGE_PATH), "first second");
    EXPECT_FALSE(path_exists(NEW_PATH));
    struct stat status;
    ASSERT_EQ(stat(IMAGE_PATH, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
    EXPECT_EQ(status.st_nlink, 1u);
}

TEST_P(image_file, may_begin_anew)
{
    begin("a longer text");
    ASSERT_EQ(image_restart(), 0);
    EXPECT_EQ(image_size(), 0);
    ASSERT_EQ(image_append("short", 5), 0);
    EXPECT_EQ(image_publish(), 0);
    EXPECT_EQ(file_text(IMAGE_PATH), "short");
}

TEST_P(image_file, is_gone_when_it_is_abandoned)
{
    begin("text");
    image_abandon();
    EXPECT_FALSE(path_exists(IMAGE_PATH));
    EXPECT_FALSE(path_exists(NEW_PATH));
    image_abandon();
}

TEST_P(image_file, takes_the_place_of_what_has_come_meanwhile)
{
    begin("new");
    write_file(IMAGE_PATH, "somebody's");
    EXPECT_EQ(image_publish(), 0);
    EXPECT_EQ(file_text(IMAGE_PATH), "new");

    write_file("/tmp/victim", "precious");
    std::filesystem::remove(IMAGE_PATH);
    begin("newer");
    std::filesystem::create_symlink("/tmp/victim", IMAGE_PATH);
    EXPECT_EQ(image_publish(), 0);
    EXPECT_EQ(file_text("/tmp/victim"), "precious");
    EXPECT_FALSE(std::filesystem::is_symlink(IMAGE_PATH));
    EXPECT_EQ(file_text(IMAGE_PATH), "newer");
}

TEST_P(image_file, takes_the_place_of_what_comes_at_the_last_moment)
{
    begin("new");
    strangers = 2;
    EXPECT_EQ(image_publish(), 0);
    EXPECT_EQ(file_text(IMAGE_PATH), "new");
    strangers = 0;
}

TEST_P(image_file, a_full_folder_in_its_place_stays)
{
    begin("new");
    std::filesystem::create_directories(IMAGE_PATH "/occupied");
    EXPECT_EQ(image_publish(), -1);
    image_abandon();
    EXPECT_TRUE(path_exists(IMAGE_PATH "/occupied"));
    EXPECT_FALSE(path_exists(NEW_PATH));
    errno = 0;
    EXPECT_EQ(image_remove(), -1);
    EXPECT_EQ(errno, ENOTEMPTY);
}

TEST_P(image_file, what_lies_beside_is_of_a_killed_run)
{
    write_file("/tmp/victim", "precious");
    std::filesystem::create_symlink("/tmp/victim", NEW_PATH);
    begin("text");
    EXPECT_EQ(image_publish(), 0);
    EXPECT_EQ(file_text("/tmp/victim"), "precious");
    EXPECT_EQ(file_text(IMAGE_PATH), "text");
    EXPECT_FALSE(path_exists(NEW_PATH));
}

TEST_P(image_file, an_old_one_is_removed)
{
    EXPECT_EQ(image_remove(), 0) << "there is none";
    write_file(IMAGE_PATH, "old");
    EXPECT_EQ(image_remove(), 0);
    EXPECT_FALSE(path_exists(IMAGE_PATH));
    std::filesystem::create_directory(IMAGE_PATH);
    EXPECT_EQ(image_remove(), 0);
    EXPECT_FALSE(path_exists(IMAGE_PATH));
}

TEST_P(image_file, the_reserve_stays_free)
{
    ASSERT_EQ(system("mount -t tmpfs -o size=3m tmpfs /tmp"), 0);
    ASSERT_EQ(image_begin(), 0);
    EXPECT_TRUE(image_has_room(2 * 1024 * 1024));
    EXPECT_FALSE(image_has_room(2 * 1024 * 1024 + 1));
    std::string block(64 * 1024, 'x');
    int64_t written = 0;
    while (image_append(block.data(), block.size()) == 0)
        ASSERT_LT(written += static_cast<int64_t>(block.size()), 3 * 1024 * 1024);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_GE(image_size(), 1024 * 1024);
    struct statvfs medium;
    ASSERT_EQ(statvfs("/tmp", &medium), 0);
    EXPECT_GT(medium.f_bavail, 0u) << "others can still write";
    image_abandon();
    EXPECT_EQ(system("umount /tmp && mount -t tmpfs -o size=0 tmpfs /tmp"), 0);
    ASSERT_EQ(image_begin(), 0);
    EXPECT_TRUE(image_has_room(1024 * 1024)) << "a medium without a limit tells no size";
    image_abandon();
    EXPECT_EQ(system("umount /tmp"), 0);
}

INSTANTIATE_TEST_SUITE_P(, image_file, testing::Bool(),
                         [](const auto &which) { return which.param ? "nameless" : "named"; });
