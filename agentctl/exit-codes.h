/*
 * How agentctl ends. Scripts rely on the numbers; they are in the manual page.
 */
#pragma once

enum {
    EXIT_GOOD = 0,
    EXIT_BAD = 1,           /* not connected; a check failed; a command failed */
    EXIT_NOT_ALIVE = 2,     /* status: no agent, or one that hangs */
    EXIT_USAGE = 64,        /* the command line is wrong (sysexits.h) */
    EXIT_UNAVAILABLE = 69,  /* the agent is not there, refuses, or does not answer */
    EXIT_INTERNAL = 70,     /* the system refused something that it always has */
    EXIT_INTERRUPTED = 130, /* Ctrl-C */
};
