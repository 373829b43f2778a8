#include "operations/fw-download.h"

#include <cerrno>

#include "tests/unit/upgrade-test.h"

using download_test = upgrade_test;

static std::string output_of(const std::string &lines)
{
    install_program(PROGRAMS "fw_dl", lines);
    clear_log();
    start_fw_dl_process(SOME_URL);
    EXPECT_TRUE(comes_true([] {
        ev_main();
        return was_logged("fw_dl process exited.");
    }));
    std::string output;
    for (const std::string &line : logged())
        if (line.compare(0, 20, "wifi.c:HTTPS_fw_dl: ") == 0)
            output += line.substr(20);
    return output;
}

TEST_F(download_test, the_program_gets_the_url_and_the_socket)
{
    EXPECT_EQ(output_of("printf '%s|' \"$@\""), SOME_URL "|/tmp/heron_event_sock|");
    EXPECT_TRUE(was_logged("Inside fw_dl child process"));
    EXPECT_TRUE(was_logged_beginning("Inside fw_dl parent process, child_pid "));
}

TEST_F(download_test, a_hostile_url_is_one_argument)
{
    install_program(PROGRAMS "fw_dl", "printf '%s|' \"$@\" >/tmp/fw_dl.arguments");
    std::string url = "https://x/;touch /tmp/owned;$(id)`id` \n%s%n '\"";
    start_fw_dl_process(url.c_str());
    EXPECT_TRUE(
        comes_true([] { return file_text("/tmp/fw_dl.arguments").find("sock|") != std::string::npos; }));
    EXPECT_EQ(file_text("/tmp/fw_dl.arguments"), url + "|/tmp/heron_event_sock|");
}

TEST_F(download_test, both_outputs_come_to_the_log_in_pieces_of_512_bytes)
{
    EXPECT_EQ(output_of("echo 10 percent; echo trouble >&2"), "10 percent\ntrouble\n");
    output_of("head -c 1500 /dev/zero | tr '\\0' x");
    std::vector<size_t> pieces;
    for (const std::string &line : logged())
        if (line.compare(0, 20, "wifi.c:HTTPS_fw_dl: ") == 0)
            pieces.push_back(line.size() - 20);
    EXPECT_EQ(pieces, (std::vector<size_t>{512, 512, 476}));
}

TEST_F(download_test, it_is_looked_at_every_second)
{
    start_fw_dl_process(SOME_URL);
    run_seconds(30);
    int looks = times_logged_beginning("fw_dl process is active");
    EXPECT_GE(looks, 30 / 2 - 1);
    EXPECT_LE(looks, 30);
}

TEST_F(download_test, its_timers_have_two_names)
{
    start_fw_dl_process(SOME_URL);
    auto has_timer = [](const char *name) {
        for (int i = 0; i < ev_count_timers(); i++)
            if (strcmp(static_cast<const char *>(ev_timer_argument(i)), name) == 0)
                return true;
        return false;
    };
    EXPECT_TRUE(has_timer("check fw_dl status"));
    run_seconds(3);
    EXPECT_TRUE(has_timer("CHECK fw_dl STATUS"));
    EXPECT_FALSE(has_timer("check fw_dl status"));
    stop_fw_dl_process();
    EXPECT_FALSE(has_timer("CHECK fw_dl STATUS"));
}

TEST_F(download_test, its_end_is_told_in_the_log)
{
    static const struct {
        int32_t status;
        const char *text;
    } rows[] = {{DOWNLOAD_COMPLETE, "Firmware download complete starting device upgrade"},
                {DOWNLOAD_FAILED, "Firmware download failed"}};
    int descriptors = ev_count_fds();
    for (const auto &row : rows) {
        https_download_status = row.status;
        output_of("exit 3");
        EXPECT_TRUE(was_logged(row.text));
        EXPECT_EQ(ev_count_fds(), descriptors);
        run_seconds(10);
        EXPECT_EQ(times_logged_beginning("fw_dl process exited."), 1);
    }
    https_download_status = DOWNLOAD_RUNNING;
    output_of("exit 0");
    EXPECT_EQ(logged().back(), "wifi.c:fw_dl process exited.");
}

TEST_F(download_test, a_program_that_cannot_be_executed_ends_with_status_1)
{
    std::filesystem::remove(PROGRAMS "fw_dl");
    start_fw_dl_process(SOME_URL);
    EXPECT_TRUE(run_until([] { return was_logged("fw_dl process exited."); }, 100000));
    EXPECT_TRUE(was_logged("Failed to execvp fw_dl process errno=" + std::to_string(ENOENT)));
}

TEST_F(download_test, stopping_takes_along_what_the_program_has_started)
{
    install_program(PROGRAMS "fw_dl", "sleep 1000 & echo $! >/tmp/fw_dl.new\n"
                                      "mv /tmp/fw_dl.new /tmp/fw_dl.pid; trap '' TERM; wait");
    start_fw_dl_process(SOME_URL);
    ASSERT_TRUE(comes_true([] { return number_in("/tmp/fw_dl.pid") > 0; }));
    int timers = ev_count_timers(), descriptors = ev_count_fds();
    stop_fw_dl_process();
    EXPECT_TRUE(comes_true([] { return has_ended(number_in("/tmp/fw_dl.pid")); }));
    EXPECT_EQ(ev_count_timers(), timers - 1);
    EXPECT_EQ(ev_count_fds(), descriptors - 1);
    stop_fw_dl_process();
    EXPECT_EQ(times_logged_beginning("Terminating fw_dl pid"), 1);
}

TEST_F(download_test, a_closed_output_does_not_spin_the_loop)
{
    install_program(PROGRAMS "fw_dl", "echo $$ >/tmp/fw_dl.pid; exec >&- 2>&-; exec sleep 1000");
    int descriptors = ev_count_fds();
    start_fw_dl_process(SOME_URL);
    ASSERT_TRUE(comes_true([descriptors] {
        ev_main();
        return ev_count_fds() == descriptors;
    }));
    size_t waits = fake_waits.size();
    run_seconds(20);
    EXPECT_LE(fake_waits.size() - waits, 40u);
    EXPECT_GT(times_logged_beginning("fw_dl process is active"), 5) << "and it is still looked for";
}
