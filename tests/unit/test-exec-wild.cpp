/*
 * Commands that run as programs and misbehave.
 */
#include <sys/socket.h>

#include "platform/front-end.h"
#include "tests/unit/exec-child-test.h"

class exec_wild : public exec_child {};

TEST_F(exec_wild, one_that_closes_its_output_early_is_given_time_and_ended)
{
    ping_says("echo $$ > " FOLDER "/pid; echo last; exec >&- 2>&-; while :; do sleep 1; done\n");
    auto last = std::chrono::steady_clock::now();
    auto longest = std::chrono::steady_clock::duration::zero();
    EXPECT_EQ(start(), 0);
    auto ended = [&] {
        auto now = std::chrono::steady_clock::now();
        longest = std::max(longest, now - last);
        last = now;
        return exec_running == 0;
    };
    EXPECT_TRUE(run_loop_until(ended, 12000));
    EXPECT_LT(longest, std::chrono::milliseconds(500)) << "the loop is not held up";
    EXPECT_TRUE(gone(FOLDER "/pid"));
    EXPECT_TRUE(was_logged("The command has no output any more, ending it"));
    EXPECT_EQ(said(), "[Initiated]last\n[Complete]");
}

TEST_F(exec_wild, one_that_closes_its_output_and_then_ends_is_not_killed)
{
    ping_says("echo last; exec >&- 2>&-; sleep 0.5; touch " FOLDER "/worked\n");
    EXPECT_EQ(start(), 0);
    EXPECT_TRUE(ends());
    EXPECT_TRUE(path_exists(FOLDER "/worked"));
    EXPECT_FALSE(was_logged("The command has no output any more, ending it"));
}

TEST_F(exec_wild, a_child_of_its_own_that_holds_the_pipe_is_ended)
{
    ping_says("(trap '' TERM HUP; echo $(exec sh -c 'echo $PPID') > " FOLDER "/child; sleep 1000) &\n"
              "until test -s " FOLDER "/child; do sleep 0.01; done; echo last\n");
    EXPECT_EQ(start(), 0);
    EXPECT_TRUE(ends());
    EXPECT_TRUE(run_loop_until([] { return gone(FOLDER "/child"); }));
    EXPECT_TRUE(was_logged("The command has left children behind, ending it"));
    EXPECT_EQ(said(), "[Initiated]last\n[Complete]");
}

TEST_F(exec_wild, one_in_a_session_of_its_own_holds_nothing_up)
{
    ping_says("setsid sh -c 'echo $$ > " FOLDER "/child; exec sleep 1000' &\n"
              "until test -s " FOLDER "/child; do sleep 0.01; done; echo last\n");
    EXPECT_EQ(start(), 0);
    EXPECT_TRUE(ends());
    EXPECT_EQ(said(), "[Initiated]last\n[Complete]");
    EXPECT_EQ(open_descriptors(), descriptors);
    kill(text_to_int(file_text(FOLDER "/child").c_str()), SIGKILL);
}

TEST_F(exec_wild, one_whose_output_the_loop_cannot_watch_is_heard_at_its_end)
{
    ping_says("echo late\n");
    std::vector<int> taken;
    while (taken.empty() || taken.back() < EV_FD_LIMIT - 1)
        taken.push_back(dup(0));
    EXPECT_EQ(start(), 0);
    for (int fd : taken)
        close(fd);
    EXPECT_EQ(ev_count_fds(), 0);
    EXPECT_TRUE(ends());
    EXPECT_EQ(said(), "[Initiated]late\n[Complete]");
}

TEST_F(exec_wild, a_flood_takes_no_memory_and_ends)
{
    ping_says("exec yes 0123456789\n");
    EXPECT_EQ(start(TS_FOR_CONTROLLER), 0);
    int passes = 0;
    run_loop_until([&] { return ++passes > 20000; }, 3000);
    EXPECT_GT(passes, 100) << "the loop goes round";
    EXPECT_LE(strlen(ts_data), 8191u);
    EXPECT_EQ(abort_exec_cmd(nullptr, nullptr), 0);
    size_t most = 0;
    for (const std::string &message : take_queued())
        most = std::max(most, message.size());
    EXPECT_LT(most, 10000u);
}

TEST_F(exec_wild, hundreds_leave_nothing)
{
    ping_says("echo x\n");
    for (int i = 0; i < 100; i++) {
        EXPECT_EQ(start(), 0);
        if (i % 3 == 0)
            (void)abort_exec_cmd(nullptr, nullptr);
        ASSERT_TRUE(ends());
        EXPECT_EQ(open_descriptors(), descriptors);
    }
}

/* ---- a front end that is slower than the program ---- */

static void no_request(int32_t, int32_t, void *) {}

class exec_slow_reader : public exec_child {
protected:
    int page = -1; /* the front end's end */

    void SetUp() override
    {
        exec_child::SetUp();
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
        ASSERT_EQ(front_end_take(ends[0], no_request), 0);
        page = ends[1];
        hooks.write_to_fcgi = write_to_fcgi;
    }
    void TearDown() override
    {
        front_end_drop();
        close(page);
        exec_child::TearDown();
    }

    /* Reads what has come to the page. */
    void read_page(void) const
    {
        char packet[8192];
        for (ssize_t length; (length = recv(page, packet, sizeof(packet), 0)) > 0;)
            packets.emplace_back(packet, static_cast<size_t>(length));
    }
};

TEST_F(exec_slow_reader, it_gets_everything)
{
    ping_says("seq 1 60000\n");
    EXPECT_EQ(start(), 0);
    EXPECT_FALSE(ends(500)) << "the program waits for its reader";
    EXPECT_FALSE(was_logged("Failed to send message"));
    auto begun = std::chrono::steady_clock::now();
    EXPECT_TRUE(run_loop_until([&] {
        read_page();
        return exec_running == 0;
    }));
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(3000)) << "at once, then";
    read_page();
    std::string all = "[Initiated]";
    for (int i = 1; i <= 60000; i++)
        all += std::to_string(i) + "\n";
    EXPECT_TRUE(said() == all + "[Complete]") << said().size() << " of " << all.size();
    EXPECT_EQ(ev_count_fds(), 1);
}

TEST_F(exec_slow_reader, the_end_of_the_program_waits_for_it)
{
    ping_says("seq 1 12000\n"); /* fits into the pipe and what the socket takes */
    EXPECT_EQ(start(), 0);
    EXPECT_FALSE(ends(5000)) << "longer than a child may hold the pipe";
    EXPECT_TRUE(run_loop_until([&] {
        read_page();
        return exec_running == 0;
    }));
    read_page();
    EXPECT_NE(said().find("\n12000\n[Complete]"), std::string::npos);
}

TEST_F(exec_slow_reader, it_hears_the_end_when_it_stops_the_command)
{
    ping_says("exec yes\n");
    EXPECT_EQ(start(), 0);
    EXPECT_FALSE(ends(300));
    EXPECT_EQ(abort_exec_cmd(nullptr, nullptr), 0);
    (void)take_queued();
    read_page();
    EXPECT_EQ(said().substr(said().size() - 10), "[Complete]");
}

TEST_F(exec_slow_reader, when_it_goes_or_another_comes_the_program_goes_on)
{
    ping_says("seq 1 60000; echo > " FOLDER "/done\n");
    EXPECT_EQ(start(), 0);
    EXPECT_FALSE(ends(300));
    int ends_of_another[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends_of_another), 0);
    ASSERT_EQ(front_end_take(ends_of_another[0], no_request), 0);
    close(page);
    page = ends_of_another[1];
    EXPECT_FALSE(ends(300)) << "this one does not read either";
    read_page();
    EXPECT_FALSE(packets.empty());
    front_end_drop();
    EXPECT_TRUE(ends());
    EXPECT_TRUE(path_exists(FOLDER "/done"));
    EXPECT_EQ(ev_count_fds(), 0);
}
