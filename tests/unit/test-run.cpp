#include "agent/run.h"

#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "agent/hooks.h"
#include "agent/signal-mask.h"
#include "tests/unit/support.h"

#define END static_cast<char *>(nullptr)

static volatile sig_atomic_t signals_seen;

static void count_signal(int) { signals_seen = signals_seen + 1; }

class run : public testing::Test {
protected:
    void SetUp() override
    {
        fresh_agent();
        std::filesystem::remove_all("/tmp/run");
        std::filesystem::create_directories("/tmp/run");
        signals_seen = 0;
        signal(SIGINT, SIG_DFL);
        signal(SIGQUIT, SIG_DFL);
        signal(SIGCHLD, SIG_DFL);
    }

    /* A program made of shell lines. */
    static void script(const std::string &path, const std::string &lines)
    {
        write_file(path, "#!/bin/sh\n" + lines + "\n");
        chmod(path.c_str(), 0755);
    }

    static void (*disposition(int number))(int)
    {
        struct sigaction now;
        sigaction(number, nullptr, &now);
        return now.sa_handler;
    }
};

/* ---- shells get scripts, never command strings ---- */

TEST_F(run, a_shell_with_a_command_string_is_refused)
{
    for (const char *shell : {"/bin/sh", "/bin/ash", "/bin/bash", "/bin/dash", "sh"})
        for (const char *option : {"-c", "+c", "-cx", "+cx"})
            EXPECT_EQ(safe_system_run(shell, option, "touch /tmp/run/started", END), -1)
                << shell << ' ' << option;
    EXPECT_EQ(safe_system_run("/bin/sh", "-e", "-c", "touch /tmp/run/started", END), -1)
        << "wherever it stands";
    EXPECT_FALSE(path_exists("/tmp/run/started"));
}

TEST_F(run, a_shell_with_a_script_runs_it)
{
    script("/tmp/run/script", "touch /tmp/run/started");
    EXPECT_EQ(safe_system_run("/bin/sh", "/tmp/run/script", END), 0);
    EXPECT_TRUE(path_exists("/tmp/run/started"));
}

TEST_F(run, only_the_second_character_is_looked_at)
{
    EXPECT_EQ(safe_system_run("/bin/bash", "-xc", "touch /tmp/run/started 2>/tmp/run/trace", END), 0);
    EXPECT_TRUE(path_exists("/tmp/run/started"));
}

TEST_F(run, only_the_four_shells_are_looked_at)
{
    script("/tmp/run/busybox", "echo \"$@\" > /tmp/run/arguments");
    EXPECT_EQ(safe_system_run("/tmp/run/busybox", "-c", "anything", END), 0);
    EXPECT_EQ(file_text("/tmp/run/arguments"), "-c anything\n");
}

/* ---- what the child is given, what the caller gets ---- */

TEST_F(run, argument_0_is_the_base_name)
{
    EXPECT_EQ(safe_system_run("/bin/cp", "/proc/self/cmdline", "/tmp/run/cmdline", END), 0);
    const char expected[] = "cp\0/proc/self/cmdline\0/tmp/run/cmdline";
    EXPECT_EQ(file_text("/tmp/run/cmdline"), std::string(expected, sizeof(expected)));
}

TEST_F(run, arguments_are_not_interpreted)
{
    script("/tmp/run/tool", "printf '%s\\n' \"$@\" > /tmp/run/arguments");
    EXPECT_EQ(safe_system_run("/tmp/run/tool", "two words", "$(touch /tmp/run/started)", "*", END), 0);
    EXPECT_EQ(file_text("/tmp/run/arguments"), "two words\n$(touch /tmp/run/started)\n*\n");
    EXPECT_FALSE(path_exists("/tmp/run/started"));
}

TEST_F(run, the_raw_wait_status_comes_back)
{
    script("/tmp/run/three", "exit 3");
    int status = safe_system_run("/tmp/run/three", END);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 3) << status;
    script("/tmp/run/killed", "kill -KILL $$");
    status = safe_system_run("/tmp/run/killed", END);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
}

TEST_F(run, a_program_that_cannot_start_exits_with_1)
{
    int status = safe_system_run("/tmp/run/absent", END);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
}

TEST_F(run, a_child_that_cannot_be_waited_for_gives_minus_1)
{
    signal(SIGCHLD, SIG_IGN); /* the kernel reaps it */
    EXPECT_EQ(safe_system_run("/bin/true", END), -1);
}

TEST_F(run, a_shell_command_runs_as_with_system)
{
    int status = run_shell("echo \"a  b\" > /tmp/run/out; exit 4");
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 4) << status;
    EXPECT_EQ(file_text("/tmp/run/out"), "a  b\n");
}

/* ---- the heartbeat ---- */

static int beats;

/* The second beat lets the command end: without it the test would wait for ever. */
static void beat(void)
{
    if (++beats == 2)
        write_file("/tmp/run/beaten", "");
}

TEST_F(run, a_long_shell_command_keeps_the_heart_beating)
{
    beats = 0;
    hooks.beat = beat;
    int status = run_shell("for i in $(seq 100); do sleep 0.1; [ -e /tmp/run/beaten ] && exit 5; done");
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 5) << status;
    EXPECT_EQ(beats, 2);
}

static bool waits_end_at_once;

extern "C" int __real_sigtimedwait(const sigset_t *set, siginfo_t *info, const struct timespec *timeout);
extern "C" int __wrap_sigtimedwait(const sigset_t *set, siginfo_t *info, const struct timespec *timeout);

int __wrap_sigtimedwait(const sigset_t *set, siginfo_t *info, const struct timespec *timeout)
{
    return waits_end_at_once ? -1 : __real_sigtimedwait(set, info, timeout);
}

/* The command ends soon after the 150th beat; one more would come before. */
static void beat_five_minutes(void)
{
    if (++beats == 150)
        write_file("/tmp/run/beaten", "");
}

TEST_F(run, another_command_may_take_five_minutes_before_the_heart_stops)
{
    beats = 0;
    hooks.beat = beat_five_minutes;
    waits_end_at_once = true;
    script("/tmp/run/hangs", "until [ -e /tmp/run/beaten ]; do sleep 0.05; done; sleep 0.2");
    EXPECT_EQ(safe_system_run("/tmp/run/hangs", END), 0);
    waits_end_at_once = false;
    EXPECT_EQ(beats, 150);
}

/* ---- signals ---- */

TEST_F(run, a_signal_during_a_long_shell_command_is_served_at_once)
{
    signals_block();
    struct sigaction counting = {};
    counting.sa_handler = count_signal;
    sigaction(SIGUSR1, &counting, nullptr);
    int status = run_shell("kill -USR1 $PPID; sleep 0.1; exit 7");
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7) << status;
    EXPECT_EQ(signals_seen, 1);
}

TEST_F(run, both_keyboard_signals_end_with_what_the_interrupt_had)
{
    signal(SIGINT, count_signal);
    signal(SIGQUIT, SIG_IGN);
    EXPECT_EQ(safe_system_run("/bin/true", END), 0);
    EXPECT_EQ(disposition(SIGINT), count_signal);
    EXPECT_EQ(disposition(SIGQUIT), count_signal);
}

TEST_F(run, keyboard_signals_are_ignored_while_waiting)
{
    signal(SIGINT, count_signal);
    script("/tmp/run/interrupts", "kill -INT $PPID; kill -QUIT $PPID");
    EXPECT_EQ(safe_system_run("/tmp/run/interrupts", END), 0);
    EXPECT_EQ(signals_seen, 0);
}

TEST_F(run, an_agents_signal_is_served_during_the_wait_and_the_wait_goes_on)
{
    signals_block();
    struct sigaction counting = {};
    counting.sa_handler = count_signal; /* without SA_RESTART: the wait is really interrupted */
    sigaction(SIGUSR1, &counting, nullptr);
    script("/tmp/run/signals", "kill -USR1 $PPID; sleep 0.1; exit 7");
    int status = safe_system_run("/tmp/run/signals", END);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7) << status;
    EXPECT_EQ(signals_seen, 1);
    kill(getpid(), SIGUSR1);
    EXPECT_EQ(signals_seen, 1) << "outside of the wait it is blocked";
    sigsuspend(signals_waiting_mask());
    EXPECT_EQ(signals_seen, 2);
}

TEST_F(run, children_start_with_default_dispositions_and_an_empty_mask)
{
    signals_block();
    signal(SIGUSR2, SIG_IGN);
    ASSERT_EQ(safe_system_run("/bin/cp", "/proc/self/status", "/tmp/run/status", END), 0);
    signal(SIGUSR2, SIG_DFL);
    std::string status = file_text("/tmp/run/status");
    for (const char *line : {"SigBlk:\t0000000000000000\n", "SigIgn:\t0000000000000000\n"})
        EXPECT_NE(status.find(line), std::string::npos) << line << status;
}

TEST_F(run, a_child_gets_no_descriptor_that_the_agent_was_started_with)
{
    int inherited = open("/dev/null", O_RDONLY);
    script("/tmp/run/looks", "[ ! -e /proc/$$/fd/" + std::to_string(inherited) + " ]");
    EXPECT_EQ(safe_system_run("/tmp/run/looks", END), 0);
    close(inherited);
}

TEST_F(run, a_child_of_an_agent_that_ignores_the_interrupt_ignores_both_keyboard_signals)
{
    signal(SIGINT, SIG_IGN);
    ASSERT_EQ(safe_system_run("/bin/cp", "/proc/self/status", "/tmp/run/status", END), 0);
    EXPECT_NE(file_text("/tmp/run/status").find("SigIgn:\t0000000000000006\n"), std::string::npos);
}

TEST_F(run, the_mask_of_before_comes_back)
{
    sigset_t child, before, after;
    sigemptyset(&child);
    sigaddset(&child, SIGUSR2);
    sigprocmask(SIG_BLOCK, &child, nullptr);
    sigprocmask(SIG_SETMASK, nullptr, &before);
    EXPECT_EQ(safe_system_run("/bin/true", END), 0);
    sigprocmask(SIG_SETMASK, nullptr, &after);
    for (int number = 1; number < NSIG; number++)
        EXPECT_EQ(sigismember(&before, number), sigismember(&after, number)) << "signal " << number;
    sigprocmask(SIG_UNBLOCK, &child, nullptr);
}

TEST_F(run, three_signals_are_ours_to_let_in_even_if_we_were_started_with_them_blocked)
{
    sigset_t ours;
    sigemptyset(&ours);
    for (int number : {SIGUSR1, SIGHUP, SIGTERM})
        sigaddset(&ours, number);
    sigprocmask(SIG_BLOCK, &ours, nullptr);
    signals_block();
    for (int number : {SIGUSR1, SIGHUP, SIGTERM})
        EXPECT_EQ(sigismember(signals_waiting_mask(), number), 0) << number;
    EXPECT_EQ(disposition(SIGPIPE), SIG_IGN);
}
