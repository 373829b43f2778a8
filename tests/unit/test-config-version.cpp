#include "platform/config-version.h"

#include <filesystem>

#include <gtest/gtest.h>
#include <sys/mount.h>

#include "agent/da.h"
#include "tests/unit/support.h"

class config_version : public testing::Test {
protected:
    void SetUp() override
    {
        fresh_agent();
        std::filesystem::remove_all(CONFVER_FILE);
        std::filesystem::create_directories("/mnt/flash/config");
    }
    void TearDown() override { std::filesystem::remove_all(CONFVER_FILE); }
};

TEST_F(config_version, it_begins_with_1)
{
    EXPECT_EQ(platform_init_config_version(), 0);
    EXPECT_EQ(file_text(CONFVER_FILE), "1");
    write_file(CONFVER_FILE, "37");
    EXPECT_EQ(platform_init_config_version(), 0);
    EXPECT_EQ(file_text(CONFVER_FILE), "37") << "an existing one stays";
}

TEST_F(config_version, it_cannot_be_created)
{
    std::filesystem::remove_all("/mnt/flash/config");
    EXPECT_EQ(platform_init_config_version(), -1);
    EXPECT_TRUE(was_logged("Not able to create the config version file"));
}

TEST_F(config_version, it_is_read)
{
    EXPECT_EQ(platform_get_da_config_version(), -1);
    EXPECT_TRUE(was_logged("Failed to retrieve the config value"));
    write_file(CONFVER_FILE, "-12");
    EXPECT_EQ(platform_get_da_config_version(), -12);
    EXPECT_TRUE(was_logged("config value : -12 \n"));
}

struct bump_row {
    const char *before, *printed, *after;
};

TEST_F(config_version, it_is_advanced)
{
    static const bump_row rows[] = {
        {"1", "new config value 2 \n", "2"},
        {"41\n", "new config value 42 \n", "42"},
        {"-5", "new config value -4 \n", "-4"},
        {"2147483645", "new config value 2147483646 \n", "2147483646"},
        {"2147483646", "new config value 2147483647 \n", "1"},
        {"2147483647", "new config value 2147483647 \n", "1"},
        {"99999999999", "new config value 2147483647 \n", "1"},
    };
    for (const bump_row &row : rows) {
        write_file(CONFVER_FILE, row.before);
        da.debug_level = -1; /* what is logged is printed too */
        testing::internal::CaptureStdout();
        EXPECT_EQ(platform_bump_da_config_version(), 0) << row.before;
        EXPECT_EQ(testing::internal::GetCapturedStdout(), row.printed) << row.before;
        EXPECT_EQ(file_text(CONFVER_FILE), row.after) << row.before;
    }
}

TEST_F(config_version, without_one_nothing_is_advanced)
{
    EXPECT_EQ(platform_bump_da_config_version(), -1);
    EXPECT_FALSE(path_exists(CONFVER_FILE));
    write_file(CONFVER_FILE, "-1");
    EXPECT_EQ(platform_bump_da_config_version(), -1);
    EXPECT_EQ(file_text(CONFVER_FILE), "-1");
}

TEST_F(config_version, it_cannot_be_written)
{
    write_file(CONFVER_FILE, "7");
    ASSERT_EQ(mount("/mnt/flash/config", "/mnt/flash/config", nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(mount(nullptr, "/mnt/flash/config", nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
    EXPECT_EQ(platform_bump_da_config_version(), -1);
    EXPECT_TRUE(was_logged("Unable to open (read case) the config version file"));
    EXPECT_EQ(file_text(CONFVER_FILE), "7");
    umount2("/mnt/flash/config", MNT_DETACH);
}
