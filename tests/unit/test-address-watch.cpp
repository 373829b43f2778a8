#include "platform/address-watch.h"

#include <cstring>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "platform/controller-sources.h"
#include "tests/unit/connection-test.h"

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

static std::vector<std::string> moves; /* the reasons with which the agent was told to leave */

static const char *const path_of[] = {STATIC_URL_FILE, DHCP_43_FILE, DHCP_15_FILE};

/* A discovery pass that finds its controller at the given source, or at the cloud. */
enum { AT_STATIC_URL = 1, AT_DHCP_43, AT_DHCP_15, AT_CLOUD };

static void discover(int found_at)
{
    char url[URL_TEXT_SIZE];
    (void)platform_get_static_url(url);
    if (found_at >= AT_DHCP_43)
        (void)platform_get_dhcp43_url(url);
    if (found_at >= AT_DHCP_15)
        (void)platform_get_dhcp15_url(url);
}

class address_watch : public connection_test {
protected:
    void SetUp() override
    {
        connection_test::SetUp();
        std::filesystem::create_directories("/mnt/flash/config");
        for (const char *path : path_of)
            std::filesystem::remove_all(path);
        moves.clear();
        no_inotify = false;
        hooks.close_for_config_change = [](const char *reason, size_t length) {
            moves.emplace_back(reason, length);
        };
    }
    void TearDown() override
    {
        address_watch_reset();
        connection_test::TearDown();
    }

    /* Watches, with a controller that was found there. */
    static void watch(int found_at = AT_CLOUD)
    {
        platform_watch_controller_address();
        discover(found_at);
        run_seconds(5);
        clear_log();
    }
};

static bool moved(void) { return !moves.empty(); }

/* How long it takes until the agent moves; -1 when it does not within so many seconds. */
static int seconds_to_move(int64_t limit = 20)
{
    int64_t start = fake_clock_now();
    return run_until(moved, limit) ? static_cast<int>((fake_clock_now() - start) / 1000000) : -1;
}

static const char *const once[] = {"DEV_CFG_UPDATE"};
#define EXPECT_ONE_MOVE() EXPECT_EQ(moves, std::vector<std::string>(std::begin(once), std::end(once)))

/* ---- what counts ---- */

TEST_F(address_watch, a_new_static_url_moves_the_agent_after_2_quiet_seconds)
{
    watch();
    write_file(STATIC_URL_FILE, "https://onprem.example\n");
    int took = seconds_to_move();
    EXPECT_GE(took, 2);
    EXPECT_LE(took, 4);
    run_seconds(120);
    EXPECT_ONE_MOVE();
    EXPECT_TRUE(was_logged("address_watch: static URL changed to [https://onprem.example], looking for the "
                           "controller anew"));
    EXPECT_EQ(logged().size(), 1u);
}

struct order_row {
    int found_at;
    bool counts[CONTROLLER_SOURCES];
};

TEST_F(address_watch, the_source_in_force_and_those_before_it_count)
{
    static const order_row rows[] = {
        {0, {false, false, false}}, /* no pass yet: the first one reads them all */
        {AT_STATIC_URL, {true, false, false}},
        {AT_DHCP_43, {true, true, false}},
        {AT_DHCP_15, {true, true, true}},
        {AT_CLOUD, {true, true, true}},
    };
    static const char *const names[] = {"static URL", "DHCP option 43", "DHCP option 15"};
    for (const order_row &row : rows)
        for (size_t source = 0; source < CONTROLLER_SOURCES; source++)
            for (const char *text : {"", "new.example"}) {
                SCOPED_TRACE(std::to_string(row.found_at) + " " + names[source] + " [" + text + "]");
                address_watch_reset();
                moves.clear();
                for (const char *path : path_of)
                    write_file(path, "old.example\n");
                platform_watch_controller_address();
                if (row.found_at)
                    discover(row.found_at);
                clear_log();
                if (text[0])
                    write_file(path_of[source], text);
                else
                    unlink(path_of[source]);
                run_seconds(10);
                EXPECT_EQ(moves.size(), row.counts[source] ? 1u : 0u);
                EXPECT_TRUE(was_logged(
                    std::string("address_watch: ") + names[source] + " changed to [" + text +
                    (row.counts[source] ? "], looking for the controller anew" : "], nothing to do")));
            }
}

TEST_F(address_watch, a_pass_that_skips_the_static_url_leaves_it_its_say)
{
    watch(AT_DHCP_43);
    char url[URL_TEXT_SIZE];
    (void)platform_get_dhcp43_url(url); /* the next pass began there */
    write_file(STATIC_URL_FILE, "new.example");
    EXPECT_NE(seconds_to_move(), -1);
}

/* An agent found its controller at the domain, was moved, and found it at the static URL. */
TEST_F(address_watch, a_later_source_loses_its_say)
{
    watch(AT_DHCP_15);
    discover(AT_STATIC_URL);
    write_file(DHCP_15_FILE, "branch.example");
    write_file(DHCP_43_FILE, "branch.example");
    EXPECT_EQ(seconds_to_move(), -1);
}

TEST_F(address_watch, the_same_text_again_is_no_change)
{
    write_file(STATIC_URL_FILE, "https://onprem.example\n");
    write_file(DHCP_43_FILE, "");
    write_file(DHCP_15_FILE, std::string(128, 'd') + "cut");
    watch();
    write_file(STATIC_URL_FILE, "https://onprem.example\n");
    write_file(STATIC_URL_FILE, "https://onprem.example");
    unlink(DHCP_43_FILE);
    write_file(DHCP_43_FILE, "\n");
    write_file(DHCP_15_FILE, std::string(128, 'd') + "differently");
    write_file("/tmp/beside", "https://onprem.example");
    ASSERT_EQ(rename("/tmp/beside", STATIC_URL_FILE) == 0 || errno == EXDEV, true);
    EXPECT_EQ(seconds_to_move(120), -1);
    EXPECT_TRUE(logged().empty());
}

TEST_F(address_watch, a_change_that_is_taken_back_in_time_is_none)
{
    write_file(STATIC_URL_FILE, "old.example");
    watch();
    write_file(STATIC_URL_FILE, "new.example");
    ev_main(); /* seen */
    EXPECT_EQ(ev_count_timers(), 1);
    fake_clock_advance(1);
    write_file(STATIC_URL_FILE, "old.example");
    EXPECT_EQ(seconds_to_move(), -1);
    EXPECT_TRUE(logged().empty());
}

TEST_F(address_watch, two_changes_make_one_move_after_the_second)
{
    watch();
    write_file(DHCP_43_FILE, "one.example");
    ev_main(); /* seen */
    fake_clock_advance(1);
    write_file(DHCP_15_FILE, "two.example");
    int took = seconds_to_move();
    EXPECT_GE(took, 2);
    EXPECT_LE(took, 4);
    run_seconds(60);
    EXPECT_ONE_MOVE();
}

/* Somebody rewrites the file every second: that is no unrest. */
TEST_F(address_watch, rewriting_does_not_put_off_the_move)
{
    watch();
    int64_t start = fake_clock_now();
    while (!moved() && fake_clock_now() - start < 20 * 1000000LL) {
        write_file(STATIC_URL_FILE, "new.example\n");
        ev_main();
        fake_clock_advance(1);
    }
    EXPECT_LE(fake_clock_now() - start, 7 * 1000000LL);
    EXPECT_ONE_MOVE();
}

TEST_F(address_watch, what_discovery_has_read_itself_is_no_change)
{
    watch();
    write_file(DHCP_43_FILE, "new.example");
    ev_main(); /* seen, and 2 seconds to wait */
    discover(AT_DHCP_43);
    EXPECT_EQ(seconds_to_move(), -1);
}

/* The loop stands still during a pass: a text may come, be read and go, and the file looks as before. */
TEST_F(address_watch, a_text_that_only_discovery_saw)
{
    watch();
    write_file(DHCP_43_FILE, "brief.example");
    discover(AT_DHCP_43);
    unlink(DHCP_43_FILE);
    EXPECT_NE(seconds_to_move(), -1);
    EXPECT_TRUE(was_logged("address_watch: DHCP option 43 changed to [], looking for the controller anew"));
}

TEST_F(address_watch, after_the_move_it_waits_for_the_next_pass)
{
    watch();
    write_file(STATIC_URL_FILE, "one.example");
    EXPECT_NE(seconds_to_move(), -1);
    write_file(STATIC_URL_FILE, "two.example");
    run_seconds(60);
    EXPECT_ONE_MOVE() << "the pass to come reads it";
    discover(AT_STATIC_URL);
    run_seconds(60);
    EXPECT_ONE_MOVE();
    write_file(STATIC_URL_FILE, "three.example");
    run_seconds(60);
    EXPECT_EQ(moves.size(), 2u);
}

/* ---- options ---- */

TEST_F(address_watch, an_agent_that_stays_idle_does_not_watch)
{
    stay_idle = 1;
    watch();
    EXPECT_EQ(ev_count_fds(), 0);
    write_file(STATIC_URL_FILE, "new.example");
    platform_look_at_controller_address();
    EXPECT_EQ(seconds_to_move(), -1);
    EXPECT_EQ(ev_count_timers(), 0);
}

TEST_F(address_watch, a_url_of_the_command_line_silences_the_static_url_file)
{
    snprintf(static_orv_url, sizeof(static_orv_url), "https://typed.example");
    watch(AT_STATIC_URL);
    write_file(STATIC_URL_FILE, "new.example");
    write_file(DHCP_43_FILE, "new.example");
    EXPECT_EQ(seconds_to_move(), -1);
    discover(AT_CLOUD); /* it named the cloud, which is asked last */
    write_file(STATIC_URL_FILE, "newer.example");
    EXPECT_EQ(seconds_to_move(), -1);
    write_file(DHCP_43_FILE, "newer.example");
    EXPECT_NE(seconds_to_move(), -1);
}

/* ---- kinds of files ---- */

TEST_F(address_watch, ways_of_changing_a_file)
{
    static const std::function<void()> ways[] = {
        [] { write_file("/tmp/beside", "new.example"), rename("/tmp/beside", DHCP_43_FILE); },
        [] { rename(DHCP_43_FILE, "/tmp/aside"); },
        [] { unlink(DHCP_43_FILE), (void)!symlink("/etc/velmora/linked", DHCP_43_FILE); },
        [] { unlink(DHCP_43_FILE), (void)!link("/tmp/other", DHCP_43_FILE); },
        [] { std::ofstream(DHCP_43_FILE, std::ios::app) << "more"; },
        [] { (void)!truncate(DHCP_43_FILE, 0), close(open(DHCP_43_FILE, O_WRONLY | O_CLOEXEC)); },
        [] { unlink(DHCP_43_FILE), mkfifo(DHCP_43_FILE, 0666); },
        [] { unlink(DHCP_43_FILE), mkdir(DHCP_43_FILE, 0777); },
    };
    write_file("/etc/velmora/linked", "linked.example");
    write_file("/tmp/other", "other.example");
    for (const auto &change : ways) {
        SCOPED_TRACE(&change - ways);
        std::filesystem::remove_all(DHCP_43_FILE);
        write_file(DHCP_43_FILE, "old.example");
        address_watch_reset();
        moves.clear();
        watch();
        change();
        EXPECT_NE(seconds_to_move(), -1);
    }
}

/* A link comes into being and is never written. */
TEST_F(address_watch, a_link_where_there_was_nothing)
{
    write_file("/tmp/other", "other.example");
    watch();
    ASSERT_EQ(link("/tmp/other", DHCP_43_FILE), 0);
    int took = seconds_to_move();
    EXPECT_GE(took, 2);
    EXPECT_LE(took, 4);
}

/* ---- folders ---- */

static const char flash[] = "/mnt/flash/config";

TEST_F(address_watch, a_folder_that_is_missing_at_the_start)
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

TEST_F(address_watch, a_folder_that_is_made_anew)
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

TEST_F(address_watch, a_folder_mounted_over_the_watched_one)
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
TEST_F(address_watch, a_busy_tmp_costs_little)
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

TEST_F(address_watch, foreign_files_are_no_reason_to_look)
{
    watch();
    write_file("/tmp/foreign", "x");
    write_file("/tmp/orv_dhcp_43_url.new", "x");
    write_file("/tmp/orv_static_url2", "x");
    ev_main();
    EXPECT_EQ(ev_count_timers(), 0);
    EXPECT_TRUE(logged().empty());
}

TEST_F(address_watch, lost_events_are_made_up_for)
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

TEST_F(address_watch, without_events_the_files_are_looked_at_every_minute)
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

TEST_F(address_watch, a_descriptor_that_the_loop_cannot_hold)
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

TEST_F(address_watch, the_target_of_a_link_is_looked_at_every_minute)
{
    write_file("/etc/velmora/linked", "old.example");
    ASSERT_EQ(symlink("/etc/velmora/linked", DHCP_43_FILE), 0);
    watch();
    write_file("/etc/velmora/linked", "new.example");
    platform_look_at_controller_address();
    EXPECT_NE(seconds_to_move(), -1);
}
