#include "operations/config-files.h"

#include <filesystem>

#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include "operations/config-update.h"
#include "tests/unit/config-test.h"

#define FLASH "/mnt/flash/config"

static std::string names(void)
{
    texts all;
    for (const auto &entry : std::filesystem::directory_iterator(FLASH))
        all.push_back(entry.path().filename().string());
    std::sort(all.begin(), all.end());
    std::string text;
    for (const std::string &name : all)
        text += name + " ";
    return text;
}

class config_files : public config_test {};

/* ---- copies ---- */

TEST_F(config_files, a_backup_and_back)
{
    EXPECT_EQ(backup_config(), COPY_DONE);
    EXPECT_EQ(file_text(CONFIG_BACKUP_FILE), OLD_CONFIG);
    write_file(CONFIG_FILE, "something else");
    EXPECT_EQ(restore_config_backup(), COPY_DONE);
    EXPECT_EQ(file_text(CONFIG_FILE), OLD_CONFIG);
    EXPECT_EQ(file_text(CONFIG_BACKUP_FILE), OLD_CONFIG);
    EXPECT_EQ(tools.ran, (texts{copied_to_backup, copied_back}));
    EXPECT_EQ(names(), "bkup-config.txt config.txt ");
}

TEST_F(config_files, a_backup_keeps_the_mode)
{
    ASSERT_EQ(chmod(CONFIG_FILE, 0600), 0);
    EXPECT_EQ(backup_config(), COPY_DONE);
    struct stat status;
    ASSERT_EQ(stat(CONFIG_BACKUP_FILE, &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
}

TEST_F(config_files, the_destination_is_never_what_cp_writes_to)
{
    tools.instead = [](const std::vector<std::string> &words) {
        write_file(words[2], "half a");
        EXPECT_EQ(file_text(CONFIG_FILE), OLD_CONFIG);
        EXPECT_EQ(file_text(CONFIG_BACKUP_FILE), OLDER_BACKUP);
        return 0x100;
    };
    EXPECT_EQ(backup_config(), COPY_FAILED);
    EXPECT_EQ(restore_config_backup(), COPY_FAILED);
    EXPECT_EQ(file_text(CONFIG_FILE), OLD_CONFIG);
    EXPECT_EQ(file_text(CONFIG_BACKUP_FILE), OLDER_BACKUP);
    EXPECT_EQ(names(), "bkup-config.txt config.txt ") << "the half is gone";
}

TEST_F(config_files, a_cp_that_made_nothing_failed)
{
    tools.instead = [](const std::vector<std::string> &) { return 0; };
    EXPECT_EQ(backup_config(), COPY_FAILED);
    EXPECT_EQ(file_text(CONFIG_BACKUP_FILE), OLDER_BACKUP);
}

TEST_F(config_files, leftovers_of_a_kill_do_not_matter)
{
    write_file(CONFIG_BACKUP_FILE ".new", std::string(1000, 'l'));
    ASSERT_EQ(chmod(CONFIG_BACKUP_FILE ".new", 0), 0);
    write_file("/tmp/victim", "untouched");
    std::filesystem::create_symlink("/tmp/victim", CONFIG_FILE ".new");
    EXPECT_EQ(backup_config(), COPY_DONE);
    EXPECT_EQ(file_text(CONFIG_BACKUP_FILE), OLD_CONFIG);
    EXPECT_EQ(restore_config_backup(), COPY_DONE);
    EXPECT_EQ(file_text("/tmp/victim"), "untouched");
    EXPECT_EQ(names(), "bkup-config.txt config.txt ");
}

TEST_F(config_files, nothing_to_copy)
{
    std::filesystem::remove(CONFIG_FILE);
    EXPECT_EQ(backup_config(), COPY_NO_SOURCE);
    EXPECT_EQ(file_text(CONFIG_BACKUP_FILE), OLDER_BACKUP);
    ASSERT_EQ(mkfifo(CONFIG_FILE, 0600), 0);
    EXPECT_EQ(backup_config(), COPY_NO_SOURCE) << "cp would wait for a writer for ever";
    std::filesystem::remove(CONFIG_BACKUP_FILE);
    EXPECT_EQ(restore_config_backup(), COPY_NO_SOURCE);
    EXPECT_EQ(tools.ran, texts{});
}

/* ---- a full flash ---- */

static int apply(const char *config, const char *overwrite)
{
    json_ptr request(json_pack("{s:s}", "config", config));
    json_object_set_new(request.get(), "overwrite", json_loads(overwrite, JSON_DECODE_ANY, nullptr));
    return platform_set_config(request.get(), error_string);
}

/* A flash of 64 KiB with the stored configuration and a backup of it, and so many pages of 4 KiB free. */
class full_flash : public config_test {
protected:
    void SetUp() override
    {
        config_test::SetUp();
        ASSERT_EQ(mount("flash", FLASH, "tmpfs", 0, "size=64k"), 0) << strerror(errno);
        write_file(CONFIG_FILE, OLD_CONFIG);
        write_file(CONFIG_BACKUP_FILE, OLDER_BACKUP);
    }
    void TearDown() override
    {
        umount2(FLASH, MNT_DETACH);
        config_test::TearDown();
    }
    static void leave_pages(size_t pages)
    {
        struct statvfs room;
        ASSERT_EQ(statvfs(FLASH, &room), 0);
        write_file(FLASH "/ballast", std::string((room.f_bfree - pages) * room.f_bsize, 'b'));
        ASSERT_EQ(statvfs(FLASH, &room), 0);
        ASSERT_EQ(room.f_bfree, pages);
    }
    static void expect_the_old(void)
    {
        EXPECT_EQ(file_text(CONFIG_FILE), OLD_CONFIG);
        EXPECT_FALSE(path_exists(DEVICE_RECONFIGURED_FILE));
        EXPECT_EQ(names(), "ballast bkup-config.txt config.txt ");
        EXPECT_STREQ(error_string, "Not able to open config file for writing");
    }
};

TEST_F(full_flash, without_room_for_the_backup_nothing_changes)
{
    leave_pages(0);
    EXPECT_EQ(apply("hostname new\n", "true"), 7);
    expect_the_old();
    EXPECT_EQ(apply("hostname new\n", "false"), 7);
    expect_the_old();
    EXPECT_EQ(file_text(CONFIG_BACKUP_FILE), OLDER_BACKUP);
    EXPECT_EQ(take_told(), texts{});
}

TEST_F(full_flash, without_room_for_the_new_one_the_old_one_stays)
{
    leave_pages(2);
    EXPECT_EQ(apply(std::string(20000, 'n').c_str(), "true"), 7);
    expect_the_old();
    EXPECT_TRUE(was_logged("Not able to create the config file"));
    EXPECT_EQ(file_text(CONFIG_BACKUP_FILE), OLD_CONFIG);
    EXPECT_EQ(tools.ran, (texts{copied_to_backup, copied_back}));
    EXPECT_EQ(take_told(), texts{status_message("InProgress", "Config update in progress")});
    EXPECT_EQ(ev_count_timers(), timers_before) << "no reboot";
}

TEST_F(full_flash, a_device_without_a_configuration_does_not_get_an_older_one)
{
    std::filesystem::remove(CONFIG_FILE);
    leave_pages(2);
    EXPECT_EQ(apply(std::string(20000, 'n').c_str(), "true"), 7);
    EXPECT_FALSE(path_exists(CONFIG_FILE));
    EXPECT_EQ(file_text(CONFIG_BACKUP_FILE), OLDER_BACKUP);
    EXPECT_EQ(tools.ran, texts{});
}

TEST_F(full_flash, a_restore_that_finds_no_room_keeps_both_and_the_flag)
{
    platform_mark_device_reconfigured();
    leave_pages(0);
    platform_restore_cfg();
    EXPECT_EQ(file_text(CONFIG_FILE), OLD_CONFIG);
    EXPECT_EQ(file_text(CONFIG_BACKUP_FILE), OLDER_BACKUP);
    EXPECT_TRUE(path_exists(DEVICE_RECONFIGURED_FILE));
}

TEST_F(full_flash, a_read_only_one)
{
    ASSERT_EQ(mount("flash", FLASH, "tmpfs", MS_REMOUNT | MS_RDONLY, nullptr), 0);
    EXPECT_EQ(apply("hostname new\n", "true"), 7);
    EXPECT_STREQ(error_string, "Not able to open config file for writing");
    EXPECT_EQ(file_text(CONFIG_FILE), OLD_CONFIG);
    EXPECT_EQ(take_told(), texts{});
}
