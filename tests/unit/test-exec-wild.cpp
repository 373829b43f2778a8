/*
 * Commands that run as programs and misbehave.
 */
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
