#include "agent/piped-child.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "agent/debug-log.h"
#include "agent/hooks.h"
#include "agent/owners.h"
#include "agent/signal-mask.h"
#include "agent/utils.h"

enum { LAST_PIECES = 65536 / CHILD_READ_SIZE };

[[noreturn]] static void give_up(const char *call)
{
    perror(call);
    call_hook(hooks.stop_fw_dl_process); /* another child: what it leaves would block upgrades from then on */
    exit(1);
}

[[noreturn]] static void run_program(const child_program &program, int output, pid_t agent)
{
    (void)setpgid(0, 0);
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    /* The agent may have died before the request reached the kernel. */
    if (getppid() != agent)
        _exit(1);
    log_set_child();
    /* Its log lines are no output of the program. */
    if (program.begin)
        program.begin();
    (void)fflush(stdout);
    (void)dup2(output, STDOUT_FILENO);
    (void)dup2(output, STDERR_FILENO);
    signals_reset_for_child();
    close_descriptors_for_child();
    /* execvp takes the list as it is; the missing const is history. */
    execvp(program.vector[0], const_cast<char *const *>(program.vector));
    if (program.failed)
        program.failed(errno);
    (void)fflush(stdout);
    _exit(1);
}

void child_start(piped_child &child, const child_program &program, ev_fd_callback output)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        give_up("pipe");
    fd_guard reading(ends[0]), writing(ends[1]);
    (void)fcntl(reading.fd, F_SETFL, O_NONBLOCK);
    pid_t agent = getpid();
    /* What is still in the buffer would be printed twice. */
    (void)fflush(stdout);
    pid_t pid = fork();
    if (pid < 0)
        give_up("fork");
    if (pid == 0)
        run_program(program, writing.fd, agent);
    /* Both sides say it, so that the group is there for whoever comes first. */
    (void)setpgid(pid, pid);
    child.pid = pid;
    child.pipe_fd = reading.release();
    (void)ev_add_fd(child.pipe_fd, EV_READ, output, nullptr);
}

child_output child_read(const piped_child &child, char (&buffer)[CHILD_READ_SIZE + 1], size_t &length)
{
    ssize_t got = read(child.pipe_fd, buffer, CHILD_READ_SIZE);
    length = got > 0 ? static_cast<size_t>(got) : 0;
    buffer[length] = '\0';
    if (got > 0)
        return CHILD_OUTPUT;
    return got < 0 && (errno == EAGAIN || errno == EINTR) ? CHILD_SILENT : CHILD_FINISHED;
}

static child_output hand_over(piped_child &child, void (*take)(const char *piece))
{
    char piece[CHILD_READ_SIZE + 1];
    size_t length;
    child_output found = child_read(child, piece, length);
    if (found == CHILD_OUTPUT)
        take(piece);
    if (found == CHILD_FINISHED)
        child_close_output(child);
    return found;
}

void child_hand_over(piped_child &child, void (*take)(const char *piece)) { (void)hand_over(child, take); }

void child_hand_over_rest(piped_child &child, void (*take)(const char *piece))
{
    for (int i = 0; i < LAST_PIECES && child.pipe_fd >= 0 && hand_over(child, take) == CHILD_OUTPUT; i++) {
    }
    child_close_output(child);
}

int child_kill(const piped_child &child)
{
    if (child.pid <= 0) {
        errno = ESRCH;
        return -1;
    }
    int group = kill(-child.pid, SIGKILL);
    return kill(child.pid, SIGKILL) == 0 || group == 0 ? 0 : -1;
}

/* Looks only: once reaped, the number of its group may be another's. */
static child_state look(const piped_child &child)
{
    siginfo_t ended = {};
    if (child.pid <= 0 ||
        waitid(P_PID, static_cast<id_t>(child.pid), &ended, WEXITED | WNOHANG | WNOWAIT) != 0)
        return CHILD_LOST;
    return ended.si_pid == 0 ? CHILD_RUNNING : CHILD_REAPED;
}

bool child_has_ended(const piped_child &child) { return look(child) != CHILD_RUNNING; }

child_state child_poll(piped_child &child, int *status)
{
    child_state state = look(child);
    if (state != CHILD_REAPED)
        return state;
    (void)child_kill(child);
    if (waitpid(child.pid, status, 0) != child.pid)
        return CHILD_LOST;
    child.pid = 0;
    return CHILD_REAPED;
}

void child_wait(piped_child &child)
{
    while (child.pid > 0 && waitpid(child.pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    child.pid = 0;
}

void child_close_output(piped_child &child)
{
    if (child.pipe_fd < 0)
        return;
    ev_del_fd(child.pipe_fd);
    (void)close(child.pipe_fd);
    child.pipe_fd = -1;
}

void child_end(piped_child &child)
{
    (void)child_kill(child);
    child_wait(child);
    child_close_output(child);
}
