/*
 * A program that runs beside the loop, its standard output and error on a pipe that the loop reads. It leads
 * a process group of its own, so that whatever it starts can be ended with it, and it dies with the agent.
 * Limits of both: a program that makes itself a new session leaves the group; the kernel sends the signal at
 * the agent's death (prctl(2), PR_SET_PDEATHSIG) to the program alone, and forgets it when one with more
 * rights than the agent is executed. The supervisor's control group takes along what is left then.
 *
 * The record holds the process until it has been reaped by its own id: as long as `pid` is set, the number
 * belongs to no other process.
 */
#pragma once

#include <cstdint>

#include <sys/types.h>

#include "agent/ev.h"

enum { CHILD_READ_SIZE = 512 }; /* bytes taken from the pipe at a time */

struct piped_child {
    pid_t pid = 0;        /* 0 when there is none */
    int32_t pipe_fd = -1; /* the end that the loop reads, -1 when closed */
};

/* What to run. */
struct child_program {
    const char *const *vector; /* the arguments, null-terminated; the first is looked up on the search path */
    void (*begin)(void);       /* called in the child, its output not yet on the pipe, or null */
    void (*failed)(int error); /* called in the child, output on the pipe, when it cannot be executed; exit
                                  status 1 follows; or null */
};

/*
 * Starts the program and watches its output with `output`. Without a pipe or a process the agent ends with
 * status 1 after printing why: a device in that state needs a new start. `child` holds none before.
 */
void child_start(piped_child &child, const child_program &program, ev_fd_callback output);

/* What child_read came to. */
enum child_output {
    CHILD_OUTPUT,  /* something was read */
    CHILD_SILENT,  /* nothing yet */
    CHILD_FINISHED /* the pipe has ended or failed: stop watching it */
};

/* Reads what is there, `length` bytes with a NUL after them. The bytes may hold NULs. */
child_output child_read(const piped_child &child, char (&buffer)[CHILD_READ_SIZE + 1], size_t &length);

/*
 * For output that is a text: hands the next piece to `take`, if there is one, and closes an output that has
 * ended. The second one is for a program that has ended: it hands over what is left, up to the 64 KiB that a
 * pipe holds (a process that outlives the program may write for ever), and closes.
 */
void child_hand_over(piped_child &child, void (*take)(const char *piece));
void child_hand_over_rest(piped_child &child, void (*take)(const char *piece));

/* Whether the program has ended, or there is nothing to wait for. It is not reaped. */
bool child_has_ended(const piped_child &child);

/* Sends signal 9 to the program, whatever group it is in, and to all of the group that it was started in.
 * Returns 0, or -1 with errno. */
int child_kill(const piped_child &child);

/* What child_poll found. */
enum child_state {
    CHILD_RUNNING,
    CHILD_REAPED, /* it has ended and its number is given back */
    CHILD_LOST    /* there is nothing to wait for; errno tells why */
};

/* Looks, without waiting, whether the program has ended; then what is left of its group is killed, it is
 * reaped and `pid` cleared. `status`, where one is wanted, is the raw wait status. */
child_state child_poll(piped_child &child, int *status);

/* Waits for the program and reaps it. For one that was killed before: there is no other bound. */
void child_wait(piped_child &child);

/* Stops watching the output and closes it; harmless when it is closed. */
void child_close_output(piped_child &child);

/* Ends it, whatever it does: kill, wait, close. Harmless when there is none. */
void child_end(piped_child &child);
