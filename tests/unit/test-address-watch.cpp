#include "platform/address-watch.h"

#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/unit/address-watch-test.h"

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
