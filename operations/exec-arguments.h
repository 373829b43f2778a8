/*
 * The command that was asked for, and its arguments as the options of a program. What does not fit is cut off
 * between characters, an option together with its value, and the log tells what.
 *
 * A host is handed on as it is, also one that begins with "-" and so is an option to the program: who may ask
 * for commands may give options anyway (a text in "verbose" is one). Nothing passes through a shell.
 */
#pragma once

#include <cstdint>

#include <jansson.h>

enum {
    EXEC_ENTRIES = 11,                              /* options and values */
    EXEC_TEXT_SIZE = 256,                           /* of the name, and of each entry, with the NUL */
    EXEC_HOST_SIZE = 128,                           /* likewise */
    EXEC_FILTER_SIZE = 128,                         /* likewise */
    EXEC_VECTOR_SIZE = 1 + EXEC_ENTRIES + 1 + 5 + 1 /* name, entries, host, what tcpdump gets, null */
};

struct exec_command {
    int32_t argc;     /* entries in argv */
    int32_t duration; /* seconds it may run; 0: no limit */
    char command[EXEC_TEXT_SIZE];
    char host[EXEC_HOST_SIZE];
    char argv[EXEC_ENTRIES][EXEC_TEXT_SIZE];
};

extern exec_command exec_cmd;

/* A filter stays until another one, or an empty one, is given. */
extern char tcpdump_filter[EXEC_FILTER_SIZE];

/* Forgets the command, the filter not. */
void clear_exec_command(void);

/* Takes the arguments of a request into exec_cmd, in the object's order. */
void read_exec_arguments(const json_t *arguments);

/* The program's arguments, null-terminated. They point into exec_cmd. */
void build_exec_vector(const char *(&vector)[EXEC_VECTOR_SIZE]);
