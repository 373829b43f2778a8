#include "operations/exec-cmd.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <time.h>

#include "agent/debug-log.h"
#include "agent/named-timer.h"
#include "agent/piped-child.h"
#include "agent/text.h"
#include "operations/disconnect-clients.h"
#include "operations/exec-arguments.h"
#include "operations/log-stream.h"
#include "operations/nslookup.h"
#include "operations/wifiperf.h"
#include "platform/front-end.h"
#include "protocol/command-output.h"
#include "protocol/message.h"
#include "protocol/received.h"

#define MODULE "exec-cmd.c"

enum {
    CHECK_PERIOD = 1,       /* seconds between looks at the child */
    PATIENCE = 3,           /* looks that end of output and end of process may lie apart */
    EXIT_MILLISECONDS = 20, /* the loop waits so long for a process that has just closed its output */
    LAST_PIECES = 128       /* as many as a pipe holds */
};

static void time_is_over(void *name);
static void look_after_child(void *name);

static named_timer cmd_timer = {"COMMAND COMPLETE", time_is_over, nullptr};
static named_timer check_timer = {"COMMAND CHECK", look_after_child, nullptr};

static piped_child child;
static int half_over;    /* looks since output or process has ended, but not both */
static bool paused;      /* the front end is behind: the output waits in the pipe, and the program with it */
static std::string rest; /* the beginning of a character whose other bytes are still to come */

/* ---- output ---- */

/* Text as it goes out. A NUL would end it: it becomes a byte that no text has, shown as U+FFFD like any. */
static void send_output(std::string text)
{
    if (text.empty())
        return;
    std::replace(text.begin(), text.end(), '\0', '\xFF');
    /* A resolver that runs as a program tells failure by what it does not say. */
    const bool failed =
        strcmp(exec_cmd.command, "nslookup") == 0 && text.find("Address 1:") == std::string::npos;
    (void)send_exec_cmd_output(text.c_str(), failed ? "Error" : "InProgress");
}

/* Sends one piece of the output; false when there is none now. */
static bool take_piece(child_output *found)
{
    char piece[CHILD_READ_SIZE + 1];
    size_t length;
    *found = child_read(child, piece, length);
    if (*found != CHILD_OUTPUT)
        return false;
    std::string text = rest + std::string(piece, length);
    const size_t whole = utf8_whole(text.data(), text.size());
    rest = text.substr(whole);
    text.resize(whole);
    send_output(text);
    return true;
}

static bool listener_ready(void) { return ts_mode != TS_FOR_FRONT_END || front_end_ready(); }

/* Sends what the pipe still holds, and no more: somebody may go on filling it. A front end that is far behind
 * does without, so that it hears of the end. */
static void close_output(void)
{
    child_output found;
    for (int i = 0; i < LAST_PIECES && child.pipe_fd >= 0 && listener_ready() && take_piece(&found); i++) {
    }
    paused = false;
    child_close_output(child);
    send_output(rest);
    rest.clear();
}

/* ---- the end ---- */

static void command_is_over(void)
{
    exec_running = 0;
    timer_disarm(cmd_timer);
    timer_disarm(check_timer);
}

static void finish(bool kill_it)
{
    command_is_over();
    if (child.pid > 0) {
        LOG(LOG_EVENT, "Killing pid %d killpid %d", child.pid, kill_it ? 1 : 0);
        if (!kill_it)
            (void)child_poll(child, nullptr);
        else if (child_kill(child) != 0)
            LOG(LOG_FAILURE, "Kill failed %s", strerror(errno));
        child_wait(child);
    }
    close_output();
    (void)send_exec_cmd_output("", "Complete");
}

/* Between the last descriptor that a process closes and its end lie moments. */
static bool ends_at_once(void)
{
    for (int i = 0; i < EXIT_MILLISECONDS; i++) {
        if (child_has_ended(child))
            return true;
        const struct timespec millisecond = {0, 1000000};
        (void)nanosleep(&millisecond, nullptr);
    }
    return false;
}

static void look_after_child(void *)
{
    timer_fired(check_timer);
    if (paused) { /* its last words may be among what waits */
        timer_arm(check_timer, CHECK_PERIOD);
        return;
    }
    const bool ended = child_has_ended(child);
    const bool silent = child.pipe_fd < 0;
    if (ended && silent) {
        finish(false);
        return;
    }
    if ((ended || silent) && ++half_over >= PATIENCE) {
        LOG(LOG_NOTABLE, "The command has %s, ending it",
            ended ? "left children behind" : "no output any more");
        finish(true);
        return;
    }
    timer_arm(check_timer, CHECK_PERIOD);
}

static void time_is_over(void *)
{
    timer_fired(cmd_timer);
    if (exec_running)
        (void)abort_exec_cmd(nullptr, nullptr);
}

static void exec_output_cb(int32_t, int32_t, void *);

static void listen_again(void)
{
    if (!paused)
        return;
    paused = false;
    (void)ev_add_fd(child.pipe_fd, EV_READ, exec_output_cb, nullptr);
}

static void exec_output_cb(int32_t fd, int32_t, void *)
{
    if (!listener_ready()) {
        ev_del_fd(fd);
        paused = true;
        front_end_wait(listen_again);
        return;
    }
    child_output found;
    if (take_piece(&found) || found != CHILD_FINISHED)
        return;
    close_output();
    if (ends_at_once())
        finish(false);
}

/* ---- the start ---- */

static void in_child(void) { LOG(LOG_TRACE, "Inside exec cmd child process"); }

static void not_executed(int error)
{
    errno = error;
    perror("execvp");
}

static void start_program(void)
{
    const char *vector[EXEC_VECTOR_SIZE];
    build_exec_vector(vector);
    half_over = 0;
    child_start(child, {vector, in_child, not_executed}, exec_output_cb);
    LOG(LOG_EVENT, "Inside exec cmd parent process %d\n", child.pid);
    exec_running = 1;
    timer_arm(check_timer, CHECK_PERIOD);
    (void)send_exec_cmd_output("", "Initiated");
}

static void start_command(void)
{
    timer_disarm(cmd_timer);
    LOG(LOG_EVENT, "Starting command execution for %s", exec_cmd.command);
    if (exec_cmd.duration != 0) {
        LOG(LOG_EVENT, "Command execution timed for %d", exec_cmd.duration);
        timer_arm(cmd_timer, exec_cmd.duration);
    }
    LOG(LOG_TRACE, "%s: command [%s] host [%s]", "start_exec_cmd", exec_cmd.command, exec_cmd.host);
    if (strcmp(exec_cmd.command, "nslookup") == 0) {
        exec_running = 1;
        (void)do_nslookup(exec_cmd.host);
        command_is_over();
    } else if (strcmp(exec_cmd.command, "log") == 0) {
        exec_running = 1;
        start_orv_logging();
    } else {
        start_program();
    }
}

/* A copy of a command's name for the caller, where one is wanted. */
static void give_name(const char *caller, const char *name, char **name_out)
{
    if (!name_out)
        return;
    size_t size = strlen(name) + 1;
    *name_out = static_cast<char *>(calloc(1, size));
    if (*name_out)
        memcpy(*name_out, name, size);
    else
        LOG(LOG_FAILURE, "%s: Out of memory so command execution status  start/stop event not generating",
            caller);
}

int start_exec_cmd(const json_t *request, int32_t mode, char **name_out)
{
    /* A service command must not take a running command's output away from whom that is for. */
    if (!service_cmd_pending || !exec_running)
        ts_mode = mode;
    if (service_cmd_pending) {
        give_name("start_exec_cmd", service_command_name(), name_out);
        return run_service_command(request) ? EXEC_STATUS : EXEC_FAILED;
    }
    if (strcmp(exec_cmd.command, "wifiperf") == 0) {
        give_name("start_exec_cmd", exec_cmd.command, name_out);
        return start_wifiperf() == 0 ? EXEC_STATUS : EXEC_FAILED;
    }
    start_command();
    return 0;
}

/* ---- the stop ---- */

int abort_exec_cmd(const json_t *request, char **name_out)
{
    const char *command = received_text(request, "command");
    if (strcmp(command, "wifiperf") == 0) {
        give_name("abort_exec_cmd", command, name_out);
        LOG(LOG_EVENT, "Command:%s: going to be stopped %s", "abort_exec_cmd", command);
        return EXEC_STATUS;
    }
    if (stop_orv_logging())
        command_is_over();
    else
        finish(true);
    (void)send_success_msg(MSG_EXEC_STOP_RSP);
    return 0;
}

void kill_exec_cmd(void) { (void)child_kill(child); }

void exec_cmd_reset(void)
{
    command_is_over();
    child_end(child);
    paused = false;
    rest.clear();
    clear_exec_command();
    tcpdump_filter[0] = '\0';
    service_cmd_pending = 0;
}
