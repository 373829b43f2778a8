/*
 * Commands that run as programs: real children.
 */
#include "tests/unit/exec-child-test.h"

/* ---- the ordinary way ---- */

TEST_F(exec_child, output_goes_out_as_it_comes)
{
    ping_says("echo one; echo two >&2; read line < " FOLDER "/go; echo three\n");
    ASSERT_EQ(system("mkfifo " FOLDER "/go"), 0);
    EXPECT_EQ(start(), 0);
    EXPECT_EQ(exec_running, 1);
    EXPECT_EQ(said(), "[Initiated]");
    EXPECT_TRUE(says("one\ntwo\n"));
    EXPECT_EQ(exec_running, 1);
    write_file(FOLDER "/go", "\n");
    EXPECT_TRUE(ends());
    EXPECT_EQ(said(), "[Initiated]one\ntwo\nthree\n[Complete]");
    EXPECT_TRUE(was_logged("Starting command execution for ping"));
    EXPECT_TRUE(was_logged("start_exec_cmd: command [ping] host []"));
    EXPECT_TRUE(was_logged("Inside exec cmd child process"));
    EXPECT_NE(file_text(AGENT_LOG_FILE).find(":Inside exec cmd parent process "), std::string::npos);
    EXPECT_EQ(ev_count_timers(), 0);
    EXPECT_EQ(txq, nullptr);
}

TEST_F(exec_child, the_controller_gets_it_by_the_second)
{
    ping_says("echo one; echo two\n");
    EXPECT_EQ(start(TS_FOR_CONTROLLER), 0);
    EXPECT_EQ(take_queued(), texts{"{\"msgType\": 409, \"status\": \"Initiated\", \"output\": \"\"}"});
    EXPECT_TRUE(ends());
    EXPECT_EQ(txq, nullptr);
    EXPECT_TRUE(run_loop_until([] { return ev_count_timers() == 0; }, 8000));
    EXPECT_EQ(take_queued(),
              (texts{"{\"msgType\": 409, \"status\": \"InProgress\", \"output\": \"one\\ntwo\\n\"}",
                     "{\"msgType\": 409, \"status\": \"Complete\", \"output\": \"\"}"}));
    EXPECT_TRUE(packets.empty());
}

TEST_F(exec_child, every_argument_arrives_as_one)
{
    ping_is("#!/bin/sh\ncat /proc/$$/cmdline > " FOLDER "/vector\n", "tcpdump");
    const texts hostile = {"; reboot",
                           "$(touch " FOLDER "/x)",
                           "`id`",
                           "a b\tc\nd",
                           "'\"\\",
                           "*",
                           "%s%n",
                           "-z",
                           "--",
                           "",
                           "|&<>!~#{}[]()?$IFS",
                           "\u20ac\x01\x7F\x1B"};
    for (const std::string &text : hostile) {
        json_ptr request(json_pack("{s:s, s:{s:s, s:s, s:s}}", "command", "tcpdump", "arguments", "interface",
                                   text.c_str(), "host", text.c_str(), "filter", text.c_str()));
        ASSERT_EQ(parse_exec_cmd(request.get(), error_text), NO_ERROR);
        ASSERT_EQ(start_exec_cmd(request.get(), TS_FOR_FRONT_END, nullptr), 0);
        ASSERT_TRUE(ends());
        const std::string nul(1, '\0');
        std::string expected = "/bin/sh" + nul + FOLDER "/tcpdump" + nul + "-i" + nul + text + nul;
        expected += text.empty() ? "" : text + nul; /* no host */
        for (const char *own : {"-l", "-q", "-n", "-#"})
            expected += own + nul;
        EXPECT_EQ(file_text(FOLDER "/vector"), expected + text + nul) << text;
    }
    EXPECT_FALSE(path_exists(FOLDER "/x"));
}

TEST_F(exec_child, a_program_that_is_not_there)
{
    setenv("PATH", FOLDER, 1);
    EXPECT_EQ(start(), 0);
    EXPECT_TRUE(ends());
    EXPECT_EQ(said(), "[Initiated]execvp: No such file or directory\n[Complete]");
    setenv("PATH", FOLDER ":/usr/bin:/bin", 1);
}

TEST_F(exec_child, it_gets_a_clean_start)
{
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    sigprocmask(SIG_BLOCK, &blocked, nullptr);
    int open = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ping_says("ls /proc/$$/fd; grep -E '^Sig(Blk|Ign)' /proc/self/status; ps -o pgid= -p $$ > " FOLDER
              "/group; read group < " FOLDER "/group; test $group = $$ && echo leader\n");
    EXPECT_EQ(start(), 0);
    EXPECT_TRUE(ends());
    sigprocmask(SIG_UNBLOCK, &blocked, nullptr);
    close(open);
    EXPECT_EQ(said().find("[Initiated]0\n1\n10\n2\nSig"), 0u) << "10 is the shell's own: " << said();
    EXPECT_NE(said().find("SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n"), std::string::npos)
        << said();
    EXPECT_NE(said().find("leader"), std::string::npos) << said();
}

/* ---- its texts ---- */

TEST_F(exec_child, bytes_that_are_no_text_are_shown_as_such)
{
    ping_says("printf 'a\\000b\\377c\\303\\n'; printf '\\000\\000'\n");
    EXPECT_EQ(start(), 0);
    EXPECT_TRUE(ends());
    EXPECT_EQ(said(), "[Initiated]a\uFFFDb\uFFFDc\uFFFD\n\uFFFD\uFFFD[Complete]");
}

TEST_F(exec_child, a_character_between_two_reads_stays_one)
{
    for (int before = 509; before <= 512; before++) {
        ping_is("#!/usr/bin/perl\nsyswrite(STDOUT, ('x' x " + std::to_string(before) +
                ") . \"\\xF0\\x9F\\x98\\x80\" . ('y' x 600));\n");
        EXPECT_EQ(start(), 0);
        EXPECT_TRUE(ends());
        EXPECT_EQ(said(), "[Initiated]" + std::string(static_cast<size_t>(before), 'x') + "\U0001F600" +
                              std::string(600, 'y') + "[Complete]");
        for (const std::string &packet : packets)
            EXPECT_EQ(packet.find("\uFFFD"), std::string::npos);
    }
}

TEST_F(exec_child, half_a_character_at_the_end_is_shown)
{
    ping_says("printf 'end \\342\\202'\n");
    EXPECT_EQ(start(), 0);
    EXPECT_TRUE(ends());
    EXPECT_EQ(said(), "[Initiated]end \uFFFD\uFFFD[Complete]");
}

TEST_F(exec_child, random_bytes_are_valid_json_and_ascii_survives)
{
    ping_says("head -c 100000 /dev/urandom; echo; echo the end\n");
    EXPECT_EQ(start(), 0);
    EXPECT_TRUE(ends());
    EXPECT_NE(said().find("\nthe end\n[Complete]"), std::string::npos) << "json() has parsed every packet";
}

TEST_F(exec_child, what_exceeds_8191_bytes_a_second_is_dropped_in_whole_characters)
{
    ping_is("#!/usr/bin/perl\nsyswrite(STDOUT, \"\\xE2\\x82\\xAC\" x 10000);\n");
    EXPECT_EQ(start(TS_FOR_CONTROLLER), 0);
    EXPECT_TRUE(ends());
    EXPECT_GT(strlen(ts_data), 8191u - 515);
    EXPECT_LE(strlen(ts_data), 8191u);
    EXPECT_EQ(valid_utf8(ts_data, strlen(ts_data)), ts_data);
    (void)take_queued();
}

/* ---- stopped ---- */

TEST_F(exec_child, a_stop_ends_it)
{
    ping_says("echo $$ > " FOLDER "/pid; trap '' TERM INT HUP QUIT; echo begun; while :; do sleep 1; done\n");
    EXPECT_EQ(start(TS_FOR_CONTROLLER), 0);
    EXPECT_TRUE(run_loop_until([] { return ts_data[0] != '\0'; }));
    (void)take_queued();
    EXPECT_EQ(abort_exec_cmd(nullptr, nullptr), 0);
    EXPECT_TRUE(gone(FOLDER "/pid"));
    EXPECT_EQ(children(), "");
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_EQ(exec_running, 0);
    EXPECT_EQ(take_queued(), texts{"{\"msgType\": 410}"});
    EXPECT_TRUE(was_logged("Killing pid " + std::to_string(text_to_int(file_text(FOLDER "/pid").c_str())) +
                           " killpid 1"));
    EXPECT_TRUE(run_loop_until([] { return ev_count_timers() == 0; }, 8000));
    EXPECT_EQ(take_queued(),
              (texts{"{\"msgType\": 409, \"status\": \"InProgress\", \"output\": \"begun\\n\"}",
                     "{\"msgType\": 409, \"status\": \"Complete\", \"output\": \"\"}"}));
}

/* Waits without the loop: the pipe is not read meanwhile. */
static bool appears(const char *path)
{
    for (int i = 0; i < 5000 && !path_exists(path); i++)
        usleep(1000);
    return path_exists(path);
}

TEST_F(exec_child, what_it_said_before_a_stop_is_shown)
{
    ping_says("printf 'last words \\342\\202\\254, half \\342'; : > " FOLDER "/said; sleep 1000\n");
    EXPECT_EQ(start(), 0);
    ASSERT_TRUE(appears(FOLDER "/said"));
    EXPECT_EQ(abort_exec_cmd(nullptr, nullptr), 0);
    EXPECT_EQ(said(), "[Initiated]last words \u20ac, half \uFFFD[Complete]");
}

TEST_F(exec_child, one_that_ends_as_it_is_stopped_has_its_say)
{
    ping_says("echo last words; (sleep 0.1; : > " FOLDER "/said) &\n");
    EXPECT_EQ(start(TS_FOR_CONTROLLER), 0);
    ASSERT_TRUE(appears(FOLDER "/said"));
    EXPECT_EQ(abort_exec_cmd(nullptr, nullptr), 0);
    (void)take_queued();
    EXPECT_TRUE(run_loop_until([] { return ev_count_timers() == 0; }, 8000));
    EXPECT_EQ(take_queued(),
              (texts{"{\"msgType\": 409, \"status\": \"InProgress\", \"output\": \"last words\\n\"}",
                     "{\"msgType\": 409, \"status\": \"Complete\", \"output\": \"\"}"}));
}

TEST_F(exec_child, a_stopped_flood_holds_nothing_up)
{
    /* A child in a session of its own goes on filling the pipe. */
    ping_says("setsid sh -c 'echo $$ > " FOLDER "/child; exec yes' & exec yes\n");
    EXPECT_EQ(start(), 0);
    EXPECT_TRUE(appears(FOLDER "/child"));
    EXPECT_TRUE(says("y\ny\n"));
    packets.clear();
    auto begun = std::chrono::steady_clock::now();
    EXPECT_EQ(abort_exec_cmd(nullptr, nullptr), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(500));
    EXPECT_LE(said().size(), 65536u + 512 + strlen("[Complete]"));
    EXPECT_TRUE(run_loop_until([] { return gone(FOLDER "/child"); })) << "nobody reads the pipe any more";
}

TEST_F(exec_child, a_stop_with_nothing_to_stop)
{
    ts_mode = TS_FOR_CONTROLLER;
    char *name = nullptr;
    EXPECT_EQ(abort_exec_cmd(json("{\"command\": \"ping\"}").get(), &name), 0);
    EXPECT_EQ(name, nullptr);
    EXPECT_EQ(take_queued(), texts{"{\"msgType\": 410}"});
    ts_mode = TS_FOR_FRONT_END;
    EXPECT_EQ(abort_exec_cmd(nullptr, nullptr), 0);
    EXPECT_EQ(said(), "[Complete]");
}

TEST_F(exec_child, the_whole_group_ends)
{
    ping_says("(echo $(exec sh -c 'echo $PPID') > " FOLDER "/child; trap '' TERM; sleep 1000) &\n"
              "until test -s " FOLDER "/child; do sleep 0.01; done; echo begun; sleep 1000\n");
    EXPECT_EQ(start(), 0);
    EXPECT_TRUE(says("begun"));
    EXPECT_FALSE(gone(FOLDER "/child"));
    EXPECT_EQ(abort_exec_cmd(nullptr, nullptr), 0);
    EXPECT_TRUE(run_loop_until([] { return gone(FOLDER "/child"); }));
    EXPECT_EQ(said(), "[Initiated]begun\n[Complete]");
}

TEST_F(exec_child, one_that_has_stopped_itself_ends)
{
    ping_says("echo $$ > " FOLDER "/pid; echo begun; kill -STOP $$\n");
    EXPECT_EQ(start(), 0);
    EXPECT_TRUE(says("begun"));
    EXPECT_EQ(abort_exec_cmd(nullptr, nullptr), 0);
    EXPECT_TRUE(gone(FOLDER "/pid"));
}

TEST_F(exec_child, its_time_is_over)
{
    ping_says("echo $$ > " FOLDER "/pid; while :; do echo more; sleep 0.1; done\n");
    auto begun = std::chrono::steady_clock::now();
    EXPECT_EQ(start(TS_FOR_CONTROLLER, ", \"duration\": 1"), 0);
    EXPECT_TRUE(was_logged("Command execution timed for 1"));
    EXPECT_TRUE(ends());
    EXPECT_GE(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(900));
    EXPECT_TRUE(gone(FOLDER "/pid"));
    EXPECT_TRUE(run_loop_until([] { return ev_count_timers() == 0; }, 8000));
    texts sent = take_queued();
    ASSERT_GE(sent.size(), 3u);
    EXPECT_EQ(std::count(sent.begin(), sent.end(), "{\"msgType\": 410}"), 1);
    EXPECT_EQ(sent.back(), "{\"msgType\": 409, \"status\": \"Complete\", \"output\": \"\"}");
}

TEST_F(exec_child, one_that_ends_in_time_leaves_no_timer)
{
    ping_says("echo done\n");
    EXPECT_EQ(start(TS_FOR_FRONT_END, ", \"duration\": 600"), 0);
    EXPECT_EQ(ev_count_timers(), 2);
    EXPECT_TRUE(ends());
    EXPECT_EQ(ev_count_timers(), 0);
}

TEST_F(exec_child, a_second_command_ends_the_first)
{
    ping_says("echo $$ > " FOLDER "/pid; echo begun; sleep 1000\n");
    EXPECT_EQ(start(), 0);
    EXPECT_TRUE(says("begun"));
    EXPECT_EQ(parse("{\"command\": \"traceroute\"}"), BAD_REQUEST);
    EXPECT_STREQ(error_text, "Command execution already in progress, aborting old command");
    EXPECT_TRUE(gone(FOLDER "/pid"));
    EXPECT_EQ(said(), "[Initiated]begun\n[Complete]");
    EXPECT_EQ(take_queued(), texts{"{\"msgType\": 410}"});
}

TEST_F(exec_child, a_stop_for_the_end_point_leaves_it_running)
{
    ping_says("echo begun; sleep 1000\n");
    EXPECT_EQ(start(), 0);
    EXPECT_TRUE(says("begun"));
    char *name = nullptr;
    EXPECT_EQ(abort_exec_cmd(json("{\"command\": \"wifiperf\"}").get(), &name), EXEC_STATUS);
    EXPECT_STREQ(malloc_text(name).get(), "wifiperf");
    EXPECT_EQ(exec_running, 1);
}

TEST_F(exec_child, a_lost_connection_ends_the_controllers_command)
{
    ping_says("echo $$ > " FOLDER "/pid; while :; do echo more; done\n");
    EXPECT_EQ(start(TS_FOR_CONTROLLER), 0);
    EXPECT_TRUE(run_loop_until([] { return ts_data[0] != '\0'; }));
    (void)take_queued();
    da.state = DA_STATE_DISCONNECTED;
    EXPECT_TRUE(ends());
    EXPECT_TRUE(gone(FOLDER "/pid"));
    EXPECT_TRUE(was_logged("send_ts_data_cb: Device disconnected, trash the ts data"));
    EXPECT_EQ(ev_count_timers(), 0);
    EXPECT_STREQ(ts_data, "");
    EXPECT_EQ(txq, nullptr);
}

TEST_F(exec_child, a_lost_connection_leaves_the_front_ends_command)
{
    ping_says("echo begun; sleep 1000\n");
    EXPECT_EQ(start(TS_FOR_CONTROLLER), 0);
    (void)abort_exec_cmd(nullptr, nullptr);
    EXPECT_EQ(start(), 0);
    EXPECT_TRUE(says("begun"));
    da.state = DA_STATE_DISCONNECTED;
    EXPECT_TRUE(
        run_loop_until([] { return was_logged("send_ts_data_cb: Device disconnected, trash the ts data"); }));
    EXPECT_EQ(exec_running, 1);
}

TEST_F(exec_child, the_end_is_told_to_the_controller_while_the_front_ends_command_runs)
{
    ping_says("echo begun; sleep 1000\n");
    EXPECT_EQ(start(TS_FOR_CONTROLLER), 0);
    EXPECT_TRUE(run_loop_until([] { return ts_data[0] != '\0'; }));
    (void)abort_exec_cmd(nullptr, nullptr);
    EXPECT_EQ(start(), 0);
    (void)take_queued();
    EXPECT_TRUE(run_loop_until([] { return txq && txq->next; }, 8000));
    EXPECT_EQ(take_queued(),
              (texts{"{\"msgType\": 409, \"status\": \"InProgress\", \"output\": \"begun\\n\"}",
                     "{\"msgType\": 409, \"status\": \"Complete\", \"output\": \"\"}"}));
    EXPECT_EQ(exec_running, 1);
}

/* ---- the log ---- */

TEST_F(exec_child, the_log_is_a_command)
{
    append_logs("before");
    EXPECT_EQ(parse("{\"command\": \"log\", \"duration\": 600}"), NO_ERROR);
    EXPECT_EQ(start_exec_cmd(nullptr, TS_FOR_CONTROLLER, nullptr), 0);
    EXPECT_EQ(exec_running, 1);
    EXPECT_EQ(log_streaming, 1);
    append_logs("after");
    EXPECT_STREQ(ts_data, "before\nafter\n");
    EXPECT_EQ(take_queued(), texts{"{\"msgType\": 409, \"status\": \"Initiated\", \"output\": \"\"}"});
    EXPECT_EQ(abort_exec_cmd(nullptr, nullptr), 0);
    EXPECT_EQ(log_streaming, 0);
    EXPECT_EQ(exec_running, 0);
    EXPECT_EQ(take_queued(), texts{"{\"msgType\": 410}"});
    EXPECT_EQ(ev_count_timers(), 1) << "the one that sends the rest";
    append_logs("later");
    EXPECT_STREQ(ts_data, "before\nafter\n");
}

TEST_F(exec_child, the_log_ends_when_its_time_is_over)
{
    EXPECT_EQ(parse("{\"command\": \"log\", \"duration\": 1}"), NO_ERROR);
    EXPECT_EQ(start_exec_cmd(nullptr, TS_FOR_FRONT_END, nullptr), 0);
    EXPECT_TRUE(ends());
    EXPECT_EQ(log_streaming, 0);
    EXPECT_EQ(said(), "[Initiated][Complete]");
    EXPECT_EQ(take_queued(), texts{"{\"msgType\": 410}"});
}

/* ---- a resolver that runs as a program ---- */

TEST_F(exec_child, a_resolvers_output_without_an_address_is_an_error)
{
    ping_says("echo 'Address 1: 10.0.0.1'; sleep 0.3; echo no such name\n");
    EXPECT_EQ(start(), 0);
    snprintf(exec_cmd.command, sizeof(exec_cmd.command), "nslookup");
    EXPECT_TRUE(ends());
    EXPECT_EQ(said(), "[Initiated]Address 1: 10.0.0.1\n[Error]no such name\n[Complete]");
}
