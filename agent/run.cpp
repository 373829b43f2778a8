#include "agent/run.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "agent/hooks.h"
#include "agent/signal-mask.h"
#include "agent/utils.h"

enum {
    BEAT_PERIOD = 2,         /* seconds */
    BEATS_OF_A_COMMAND = 150 /* five minutes: longer than any of them takes */
};

static const char *base_name(const char *path)
{
    const char *slash = strrchr(path, '/');
    return slash ? slash + 1 : path;
}

static bool is_shell(const char *name)
{
    static const char *const shells[] = {"sh", "ash", "bash", "dash"};
    for (const char *shell : shells)
        if (strcmp(name, shell) == 0)
            return true;
    return false;
}

/* Only the second character is looked at: "-xc" passes. */
static bool is_command_string_option(const char *argument)
{
    return (argument[0] == '-' || argument[0] == '+') && argument[1] == 'c';
}

/* What the parent ignores or blocks while it waits, put back when the guard goes and in the child. */
struct waiting_dispositions {
    struct sigaction interrupt;
    sigset_t mask;

    waiting_dispositions()
    {
        struct sigaction ignore = {};
        ignore.sa_handler = SIG_IGN;
        sigaction(SIGQUIT, &ignore, nullptr);
        sigaction(SIGINT, &ignore, &interrupt);
        sigset_t child;
        sigemptyset(&child);
        sigaddset(&child, SIGCHLD);
        sigprocmask(SIG_BLOCK, &child, &mask);
    }
    /* Both get what SIGINT had: a terminal's two ways of interrupting stay alike. */
    void put_back() const
    {
        sigaction(SIGINT, &interrupt, nullptr);
        sigaction(SIGQUIT, &interrupt, nullptr);
    }
    ~waiting_dispositions()
    {
        sigprocmask(SIG_SETMASK, &mask, nullptr);
        put_back();
    }
    waiting_dispositions(const waiting_dispositions &) = delete;
    waiting_dispositions &operator=(const waiting_dispositions &) = delete;
};

/*
 * Returns when the child has ended, or after so many beats of the heart. SIGCHLD is blocked, so that none is
 * missed between the look and the wait; one of another child only makes it look again sooner.
 */
static void beat_until_ended(pid_t child, int64_t beats)
{
    sigset_t ended;
    sigemptyset(&ended);
    sigaddset(&ended, SIGCHLD);
    const struct timespec period = {BEAT_PERIOD, 0};
    siginfo_t found = {};
    while (beats-- > 0 && waitid(P_PID, static_cast<id_t>(child), &found, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           found.si_pid == 0) {
        call_hook(hooks.beat);
        (void)sigtimedwait(&ended, nullptr, &period);
    }
}

/* Waits for one child with the agent's signals let in. */
static int wait_for_child(pid_t child, int64_t beats)
{
    sigset_t waiting = *signals_waiting_mask();
    sigaddset(&waiting, SIGCHLD);
    sigset_t blocked;
    int status = -1;
    pid_t reaped;
    sigprocmask(SIG_SETMASK, &waiting, &blocked);
    beat_until_ended(child, beats);
    do {
        reaped = waitpid(child, &status, 0);
    } while (reaped < 0 && errno == EINTR);
    sigprocmask(SIG_SETMASK, &blocked, nullptr);
    return reaped == child ? status : -1;
}

static int run_and_wait(const char *path, char *const *vector, int64_t beats)
{
    waiting_dispositions kept;
    pid_t child = fork();
    if (child < 0)
        return -1;
    if (child == 0) {
        signals_reset_for_child();
        kept.put_back();
        close_descriptors_for_child();
        execv(path, vector);
        _exit(1);
    }
    return wait_for_child(child, beats);
}

int safe_system_run(const char *path, ...)
{
    const char *name = base_name(path);
    std::vector<char *> vector = {const_cast<char *>(name)};
    bool shell = is_shell(name);
    bool refused = false;

    va_list arguments;
    va_start(arguments, path);
    while (char *argument = va_arg(arguments, char *)) {
        refused = refused || (shell && is_command_string_option(argument));
        vector.push_back(argument);
    }
    va_end(arguments);
    if (refused)
        return -1;
    vector.push_back(nullptr);
    return run_and_wait(path, vector.data(), BEATS_OF_A_COMMAND);
}

int run_shell(const char *command)
{
    const char *vector[] = {"sh", "-c", command, nullptr};
    return run_and_wait("/bin/sh", const_cast<char *const *>(vector), INT64_MAX);
}
