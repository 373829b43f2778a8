/*
 * agentctl run and stop
 */
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include <signal.h>

#include "agentctl/agent-process.h"
#include "agentctl/check-run.h"
#include "agentctl/command-request.h"
#include "agentctl/exit-codes.h"
#include "agentctl/front-end.h"
#include "agentctl/output.h"
#include "agentctl/usage.h"
#include "agentctl/verbs.h"

/* Milliseconds. */
enum {
    START_WAIT = 10000, /* for the first word of a command */
    LOOK_AGAIN = 100,   /* whether it has ended */
    STOP_WAIT = 3000,   /* for the end of one that was told to stop */
};

static volatile sig_atomic_t interrupted; /* how often */

static void note_interrupt(int) { interrupted = interrupted + 1; }

/* Ctrl-C and its kin are noted, and let in only where we wait. Returns the mask for that. */
static sigset_t catch_interrupts(void)
{
    struct sigaction action = {};
    action.sa_handler = note_interrupt;
    sigset_t ours;
    sigset_t waiting;
    sigemptyset(&ours);
    for (int number : {SIGINT, SIGTERM, SIGHUP}) {
        sigaction(number, &action, nullptr);
        sigaddset(&ours, number);
    }
    sigprocmask(SIG_BLOCK, &ours, &waiting);
    for (int number : {SIGINT, SIGTERM, SIGHUP})
        sigdelset(&waiting, number);
    return waiting;
}

/* A command as it goes on. */
struct running_command {
    int fd;
    sigset_t waiting;
    bool begun = false; /* "Initiated" came: what comes from now on is ours */
    bool ended = false;
    int stop_sent = 0;    /* interrupts answered so far */
    int64_t patience = 0; /* until when an answer is waited for; 0: for ever */
    int result = EXIT_GOOD;
};

static void show_output(const json_t *message)
{
    const json_t *output = json_object_get(message, "output");
    std::string text(json_string_value(output) ? json_string_value(output) : "", json_string_length(output));
    fputs(printable(text).c_str(), stdout);
    fflush(stdout);
}

/*
 * An output message. The end of a command that was displaced may still come before ours has begun; a name
 * that nslookup cannot resolve is told in one message that begins and ends.
 */
static void hear_output(running_command *command, const json_t *message)
{
    const char *status = json_string_value(json_object_get(message, "status"));
    bool has_text = json_string_length(json_object_get(message, "output")) > 0;
    bool completes = status && strcmp(status, "Complete") == 0;
    if (status && strcmp(status, "Initiated") == 0)
        command->begun = true;
    else if (!command->begun && !(completes && has_text))
        return;
    if (command->begun)
        command->patience = command->stop_sent ? command->patience : 0;
    show_output(message);
    if (completes && has_text) {
        printf("\n");
        command->result = EXIT_BAD;
    }
    command->ended = command->ended || completes;
}

static void stop_on_interrupt(running_command *command)
{
    if (interrupted == command->stop_sent)
        return;
    if (command->stop_sent > 0) { /* once more: no more patience */
        command->ended = true;
        command->result = EXIT_INTERRUPTED;
        return;
    }
    command->stop_sent = interrupted;
    command->result = EXIT_INTERRUPTED;
    command->patience = milliseconds_now() + STOP_WAIT;
    if (send_message(command->fd, json_pack("{s:i}", "msgType", FRONT_END_STOP)) != 0)
        command->ended = true;
}

static void time_is_over(running_command *command)
{
    command->ended = true;
    if (command->stop_sent) {
        complain("the agent has not said that it stopped the command");
        return;
    }
    complain("the agent does not answer");
    command->result = EXIT_UNAVAILABLE;
}

static void connection_ended(running_command *command)
{
    command->ended = true;
    if (command->stop_sent)
        return;
    if (command->begun)
        complain("the agent ended the connection: another front end took its place, or the agent ended");
    else
        complain("the agent refused. If another command was running, it has been stopped: try again");
    command->result = EXIT_UNAVAILABLE;
}

static int follow_command(running_command *command)
{
    while (!command->ended) {
        int64_t left = command->patience ? command->patience - milliseconds_now() : -1;
        if (command->patience && left <= 0) {
            time_is_over(command);
            break;
        }
        json_ptr message;
        received_kind kind =
            receive_message(command->fd, static_cast<int>(left), &command->waiting, &message);
        stop_on_interrupt(command);
        if (kind == RECEIVED_END)
            connection_ended(command);
        if (kind != RECEIVED_MESSAGE)
            continue;
        if (message_type(message.get()) == FRONT_END_OUTPUT)
            hear_output(command, message.get());
        if (message_type(message.get()) == FRONT_END_STOPPED && command->begun) {
            command->ended = true;
            if (!command->stop_sent) {
                complain("the command was stopped");
                command->result = EXIT_BAD;
            }
        }
    }
    return command->result;
}

int verb_run(int argc, char **argv)
{
    std::string complaint;
    json_ptr request(command_request(argc, argv, &complaint));
    if (!request)
        return usage_error("run", complaint.c_str());
    running_command command = {};
    command.waiting = catch_interrupts();
    bool displaces = false;
    fd_guard sock(connect_front_end(true, &displaces));
    if (sock.fd < 0)
        return EXIT_UNAVAILABLE;
    command.fd = sock.fd;
    command.patience = milliseconds_now() + START_WAIT;
    /* A request while a command runs would stop that and be refused itself. */
    if (displaces && send_message(sock.fd, json_pack("{s:i}", "msgType", FRONT_END_STOP)) != 0)
        return EXIT_UNAVAILABLE;
    if (send_message(sock.fd, request.release()) != 0)
        return EXIT_UNAVAILABLE;
    return follow_command(&command);
}

int verb_stop(int argc, char **argv)
{
    if (argc > 1)
        return usage_error("stop", "what is ", argv[1]);
    bool was_running = false;
    fd_guard sock(connect_front_end(false, &was_running));
    if (sock.fd < 0 || send_message(sock.fd, json_pack("{s:i}", "msgType", FRONT_END_STOP)) != 0)
        return EXIT_UNAVAILABLE;
    /* Only the output of a front end's command is told here; the process shows the end of any. */
    int64_t until = milliseconds_now() + STOP_WAIT;
    bool runs = was_running;
    while (runs && milliseconds_now() < until) {
        json_ptr ignored;
        if (receive_message(sock.fd, LOOK_AGAIN, nullptr, &ignored) == RECEIVED_END)
            break;
        runs = !running_commands(find_agent_process().pid).empty();
    }
    if (runs) {
        complain("the command still runs");
        return EXIT_BAD;
    }
    printf("%s\n", was_running ? "stopped" : "told to stop; no running command was seen");
    return EXIT_GOOD;
}
