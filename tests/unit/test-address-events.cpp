/* The watcher of the controller's address: its folders, and events that are many, lost or not to be had. */
#include <cerrno>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "tests/unit/address-watch-test.h"

/* The system has no events to give while this is set. */
static bool no_inotify;

extern "C" int inotify_init1(int flags) noexcept
{
    if (no_inotify) {
        errno = EMFILE;
        return -1;
    }
    return static_cast<int>(syscall(SYS_inotify_init1, flags));
}

class address_events : public address_watch {
protected:
    void SetUp() override
    {
        address_watch::SetUp();
        no_inotify = false;
    }
};

/* ---- folders ---- */

static const char flash[] = "/mnt/flash/config";

TEST_F(address_events, a_folder_that_is_missing_at_the_start)
{
    std::filesystem::remove_all(flash);
    platform_watch_controller_address();
    discover(AT_CLOUD);
    EXPECT_TRUE(
        was_logged("address_watch: Cannot watch /mnt/flash/config: No such file or directory; looking "
                   "every minute"));
    clear_log();
    platform_look_at_controller_address();
    EXPECT_TRUE(logged().empty()) << "said once";
    std::filesystem::create_directories(flash);
    platform_look_at_controller_address();
    write_file(STATIC_URL_FILE, "new.example");
    EXPECT_NE(seconds_to_move(), -1);
}

TEST_F(address_events, a_folder_that_is_made_anew)
{
    write_file(STATIC_URL_FILE, "old.example");
    for (bool moved_aside : {false, true}) {
        moves.clear();
        address_watch_reset();
        std::filesystem::remove_all("/mnt/flash/aside");
        watch();
        if (moved_aside)
            rename(flash, "/mnt/flash/aside");
        else
            std::filesystem::remove_all(flash);
        write_file(STATIC_URL_FILE, "old.example");
        run_seconds(6); /* two quiet seconds after the loss it is watched again */
        EXPECT_FALSE(moved());
        write_file(STATIC_URL_FILE, "new.example");
        EXPECT_NE(seconds_to_move(), -1) << moved_aside;
        write_file(STATIC_URL_FILE, "old.example");
    }
}

TEST_F(address_events, a_folder_mounted_over_the_watched_one)
{
    watch();
    ASSERT_EQ(mount("tmpfs", flash, "tmpfs", 0, nullptr), 0);
    platform_look_at_controller_address();
    write_file(STATIC_URL_FILE, "new.example");
    EXPECT_NE(seconds_to_move(), -1);
    umount2(flash, MNT_DETACH);
}

/* ---- events that are many, lost or not to be had ---- */

/* Somebody uses "/tmp" without pause: the agent wakes up for it about once a second, and still sees what
 * concerns it. */
TEST_F(address_events, a_busy_tmp_costs_little)
{
    watch();
    fake_waits.clear();
    fake_wait_interruption = []() -> int64_t {
        fake_clock_advance(0, 1000);
        write_file("/tmp/busy", "x");
        return 0;
    };
    int64_t start = fake_clock_now();
    while (fake_clock_now() - start < 60 * 1000000LL && fake_waits.size() < 10000)
        ev_main();
    EXPECT_LE(fake_waits.size(), 65u);
    EXPECT_GE(fake_waits.size(), 10u);
    EXPECT_FALSE(moved());
    write_file(DHCP_43_FILE, "new.example");
    int took = seconds_to_move();
    EXPECT_GE(took, 2);
    EXPECT_LE(took, 8);
}

TEST_F(address_events, foreign_files_are_no_reason_to_look)
{
    watch();
    write_file("/tmp/foreign", "x");
    write_file("/tmp/orv_dhcp_43_url.new", "x");
    write_file("/tmp/orv_static_url2", "x");
    ev_main();
    EXPECT_EQ(ev_count_timers(), 0);
    EXPECT_TRUE(logged().empty());
}

TEST_F(address_events, lost_events_are_made_up_for)
{
    watch();
    std::ifstream limit("/proc/sys/fs/inotify/max_queued_events");
    int queued = 0;
    limit >> queued;
    ASSERT_GT(queued, 0);
    int fd = open("/tmp/a", O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
    for (int i = 0; i <= queued / 2; i++) { /* two kinds in turn, or they are taken together */
        (void)!link("/tmp/a", "/tmp/b");
        unlink("/tmp/b");
    }
    close(fd);
    write_file(DHCP_43_FILE, "new.example"); /* there is no room for this one */
    EXPECT_NE(seconds_to_move(), -1);
}

TEST_F(address_events, without_events_the_files_are_looked_at_every_minute)
{
    no_inotify = true;
    platform_watch_controller_address();
    discover(AT_CLOUD);
    EXPECT_EQ(ev_count_fds(), 0);
    EXPECT_TRUE(
        was_logged("address_watch: Cannot watch for changes of the controller's address: Too many open "
                   "files; looking every minute"));
    clear_log();
    write_file(STATIC_URL_FILE, "new.example");
    EXPECT_EQ(seconds_to_move(60), -1);
    platform_look_at_controller_address();
    EXPECT_NE(seconds_to_move(), -1);
    EXPECT_EQ(logged().size(), 1u) << "the move; the lack of events is not said again";

    discover(AT_STATIC_URL);
    moves.clear();
    no_inotify = false;
    platform_look_at_controller_address();
    write_file(STATIC_URL_FILE, "newer.example");
    EXPECT_NE(seconds_to_move(), -1) << "once there are events they are used";
}

TEST_F(address_events, a_descriptor_that_the_loop_cannot_hold)
{
    struct rlimit many = {2048, 2048};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &many), 0);
    std::vector<int> taken;
    while (taken.empty() || taken.back() < EV_FD_LIMIT)
        taken.push_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
    platform_watch_controller_address();
    discover(AT_CLOUD);
    EXPECT_EQ(ev_count_fds(), 0);
    int next = open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(next, taken.back() + 1) << "it was closed";
    close(next);
    for (int fd : taken)
        close(fd);
    write_file(STATIC_URL_FILE, "new.example");
    platform_look_at_controller_address();
    EXPECT_NE(seconds_to_move(), -1);
}

TEST_F(address_events, the_target_of_a_link_is_looked_at_every_minute)
{
    write_file("/etc/velmora/linked", "old.example");
    ASSERT_EQ(symlink("/etc/velmora/linked", DHCP_43_FILE), 0);
    watch();
    write_file("/etc/velmora/linked", "new.example");
    platform_look_at_controller_address();
    EXPECT_NE(seconds_to_move(), -1);
}
