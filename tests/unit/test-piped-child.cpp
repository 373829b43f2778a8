#include "agent/piped-child.h"

#include <cerrno>
#include <filesystem>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "agent/debug-log.h"
#include "agent/hooks.h"
#include "tests/unit/support.h"

#define MODULE "test.c"

extern "C" pid_t __real_fork(void);
extern "C" pid_t __wrap_fork(void);

static bool no_more_processes;

pid_t __wrap_fork(void)
{
    errno = EAGAIN;
    return no_more_processes ? -1 : __real_fork();
}

static piped_child child;
static std::string output;
static bool finished;

static void take_output(int32_t, int32_t, void *)
{
    char buffer[CHILD_READ_SIZE + 1];
    size_t length;
    switch (child_read(child, buffer, length)) {
    case CHILD_OUTPUT:
        EXPECT_EQ(buffer[length], '\0');
        output.append(buffer, length);
        break;
    case CHILD_FINISHED:
        finished = true;
        child_close_output(child);
        break;
    case CHILD_SILENT: break;
    }
}

static void say_begin(void) { LOG(LOG_FAILURE, "Inside the child"); }

static void say_failed(int error) { printf("errno=%d\n", error); }

static pid_t number_in(const std::string &path) { return std::atoi(file_text(path).c_str()); }

/* Gone, or a zombie that some other parent has to reap. */
static bool ended(pid_t pid)
{
    std::string status = file_text("/proc/" + std::to_string(pid) + "/stat");
    return status.empty() || status.find(") Z ") != std::string::npos;
}

class piped : public testing::Test {
protected:
    void SetUp() override
    {
        fresh_agent();
        std::filesystem::remove_all("/tmp/piped");
        std::filesystem::create_directories("/tmp/piped");
        output.clear();
        finished = false;
    }
    void TearDown() override { child_end(child); }

    static void start(std::vector<const char *> vector, void (*begin)(void) = nullptr,
                      void (*failed)(int) = nullptr)
    {
        vector.push_back(nullptr);
        child_start(child, {vector.data(), begin, failed}, take_output);
    }
    static void start_shell(const char *lines) { start({"sh", "-c", lines}); }

    static bool run_until_reaped(int *status = nullptr)
    {
        return run_loop_until([&] { return child_poll(child, status) == CHILD_REAPED; });
    }
};

TEST_F(piped, output_and_errors_come_over_the_pipe)
{
    start_shell("echo out; echo err >&2");
    EXPECT_TRUE(run_loop_until([] { return finished; }));
    EXPECT_EQ(output, "out\nerr\n");
    EXPECT_TRUE(run_until_reaped());
    EXPECT_EQ(ev_count_fds(), 0);
}

TEST_F(piped, the_search_path_is_used_and_arguments_stay_whole)
{
    start({"printf", "<%s>", "two words", "$(id)", "*", ""});
    EXPECT_TRUE(run_loop_until([] { return finished; }));
    EXPECT_EQ(output, "<two words><$(id)><*><>");
}

TEST_F(piped, a_read_takes_at_most_512_bytes_and_keeps_nuls)
{
    start_shell("head -c 1300 /dev/zero");
    EXPECT_TRUE(run_loop_until([] { return finished; }));
    EXPECT_EQ(output, std::string(1300, '\0'));
}

TEST_F(piped, the_exit_status_is_told)
{
    int status = 0;
    start_shell("exit 7");
    EXPECT_TRUE(run_until_reaped(&status));
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 7);
    EXPECT_EQ(child.pid, 0);
}

TEST_F(piped, a_program_that_is_not_there_ends_with_1)
{
    int status = 0;
    start({"no-such-program"}, say_begin, say_failed);
    EXPECT_TRUE(run_loop_until([] { return finished; }));
    EXPECT_EQ(output, "errno=" + std::to_string(ENOENT) + "\n") << "the line of the beginning is no output";
    EXPECT_TRUE(run_until_reaped(&status));
    EXPECT_EQ(WEXITSTATUS(status), 1);
    EXPECT_TRUE(was_logged("Inside the child"));
}

TEST_F(piped, it_runs_until_it_has_ended)
{
    start_shell("read line < /tmp/piped/gate");
    ASSERT_EQ(mkfifo("/tmp/piped/gate", 0600), 0);
    child_end(child);
    start_shell("read line < /tmp/piped/gate");
    EXPECT_EQ(child_poll(child, nullptr), CHILD_RUNNING);
    write_file("/tmp/piped/gate", "go\n");
    EXPECT_TRUE(run_until_reaped());
    EXPECT_EQ(child_poll(child, nullptr), CHILD_LOST) << "and is not waited for twice";
}

TEST_F(piped, ending_it_ends_what_it_started)
{
    start_shell("trap '' TERM INT HUP; (trap '' TERM; echo $$ > /tmp/piped/outer; sleep 1000) & "
                "echo $! > /tmp/piped/inner; echo ready; wait");
    EXPECT_TRUE(run_loop_until([] { return output == "ready\n"; }));
    pid_t outer = child.pid, inner = number_in("/tmp/piped/inner");
    ASSERT_GT(inner, 0);
    child_end(child);
    EXPECT_TRUE(run_loop_until([&] { return ended(outer) && ended(inner); }));
    EXPECT_EQ(child.pid, 0);
    EXPECT_EQ(ev_count_fds(), 0);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "no zombie is left";
    child_end(child);
}

TEST_F(piped, what_it_leaves_behind_ends_with_it)
{
    start_shell("sleep 1000 & echo $! > /tmp/piped/left; echo ready");
    EXPECT_TRUE(run_until_reaped());
    pid_t left = number_in("/tmp/piped/left");
    ASSERT_GT(left, 0);
    EXPECT_TRUE(run_loop_until([&] { return ended(left); }));
    EXPECT_TRUE(run_loop_until([] { return finished; })) << "so that the pipe ends, too";
}

TEST_F(piped, it_dies_with_the_agent)
{
    pid_t agent = fork();
    if (agent == 0) {
        start_shell(
            "echo $$ > /tmp/piped/orphan.new; mv /tmp/piped/orphan.new /tmp/piped/orphan; sleep 1000");
        (void)run_loop_until([] { return path_exists("/tmp/piped/orphan"); });
        _exit(0);
    }
    ASSERT_EQ(waitpid(agent, nullptr, 0), agent);
    pid_t orphan = number_in("/tmp/piped/orphan");
    ASSERT_GT(orphan, 0);
    EXPECT_TRUE(run_loop_until([&] { return ended(orphan); }));
}

TEST_F(piped, it_inherits_no_descriptor_and_default_signals)
{
    int kept = open("/dev/null", O_RDONLY); /* as one that the agent has from its own parent */
    signal(SIGPIPE, SIG_IGN);
    std::string lines =
        "[ -e /proc/$$/fd/" + std::to_string(kept) + " ] && echo inherited; grep SigIgn /proc/$$/status";
    start_shell(lines.c_str());
    EXPECT_TRUE(run_loop_until([] { return finished; }));
    EXPECT_EQ(output, "SigIgn:\t0000000000000000\n");
    signal(SIGPIPE, SIG_DFL);
    close(kept);
}

TEST_F(piped, whether_it_has_ended_is_seen_without_reaping_it)
{
    EXPECT_TRUE(child_has_ended(child)) << "there is none";
    start_shell("exec sleep 1000");
    EXPECT_FALSE(child_has_ended(child));
    kill(child.pid, SIGKILL);
    EXPECT_TRUE(run_loop_until([] { return child_has_ended(child); }));
    EXPECT_TRUE(child_has_ended(child));
    EXPECT_EQ(child_poll(child, nullptr), CHILD_REAPED);
}

TEST_F(piped, one_that_has_left_its_group_is_killed)
{
    /* It joins the group of a child of its own, which ends after it. */
    start({"perl", "-e",
           "$me = $$; if (!($c = fork)) { select(undef, undef, undef, 0.05) while getppid == $me; exit }"
           "setpgrp($c, $c); setpgrp(0, $c); syswrite(STDOUT, 'out'); sleep 1000"});
    EXPECT_TRUE(run_loop_until([] { return output == "out"; }));
    EXPECT_NE(getpgid(child.pid), child.pid);
    EXPECT_EQ(child_kill(child), 0);
    child_wait(child);
    EXPECT_EQ(child.pid, 0);
}

TEST_F(piped, killing_nobody_fails)
{
    errno = 0;
    EXPECT_EQ(child_kill(child), -1);
    EXPECT_EQ(errno, ESRCH);
}

/* ---- a device without a pipe or a process left starts anew ---- */

static void start_true(void)
{
    hooks.stop_fw_dl_process = [] { fprintf(stderr, "no download\n"); };
    const char *vector[] = {"true", nullptr};
    child_start(child, {vector, nullptr, nullptr}, take_output);
}

static void start_without_descriptors(void)
{
    struct rlimit none = {0, 0};
    setrlimit(RLIMIT_NOFILE, &none);
    start_true();
}

static void start_without_processes(void)
{
    no_more_processes = true;
    start_true();
}

TEST_F(piped, without_a_pipe_the_agent_ends)
{
    EXPECT_EXIT(start_without_descriptors(), testing::ExitedWithCode(1),
                "^pipe: Too many open files\nno download\n");
}

TEST_F(piped, without_a_process_the_agent_ends)
{
    EXPECT_EXIT(start_without_processes(), testing::ExitedWithCode(1),
                "^fork: Resource temporarily unavailable\nno download\n");
}
