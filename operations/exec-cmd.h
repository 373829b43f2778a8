/*
 * Troubleshooting commands, for the controller and for the device's front end: one at a time, its output
 * streamed (protocol/command-output.h) until it ends, is stopped, or its time is over.
 *
 * A program runs in a process group of its own (agent/piped-child.h). It is at its end when its output has
 * ended and it has exited. Where only one of the two comes, for it has closed its output early or a child of
 * it holds the pipe, the other one is given a few seconds; then all of the group is killed.
 */
#pragma once

#include <cstdint>

#include <jansson.h>

/* What start_exec_cmd and abort_exec_cmd return beside 0. The caller tells the controller, by the name. */
enum {
    EXEC_STATUS = 12, /* done, and there will be no output: status 409 or 410 */
    EXEC_FAILED = 13, /* status 709 or 710 */
};

/*
 * Reads a request (exec-request.h), which may be null. Returns 0, or a status of protocol/error-codes.h; the
 * error text (ERROR_STRING_SIZE bytes) is then set, except where the request has no command. While a command
 * runs, that one is ended and the new one is refused.
 */
int parse_exec_cmd(const json_t *request, char *error_text);

/*
 * Starts what was parsed, for the controller (TS_FOR_CONTROLLER) or the front end. Returns 0 when output
 * follows, else one of the above; then `name_out`, if it is not null, receives the command's name, which the
 * caller frees, or null when memory is short.
 */
int start_exec_cmd(const json_t *request, int32_t mode, char **name_out);

/*
 * Ends the running command and tells the controller so (410). Returns 0, also when nothing runs. A request,
 * which may be null, for "wifiperf" ends nothing: the end point has its own time; EXEC_STATUS and the name.
 */
int abort_exec_cmd(const json_t *request, char **name_out);

/* The agent ends: kills what runs, and waits for nothing. */
void kill_exec_cmd(void);

/* For tests: ends and forgets everything, without a word. */
void exec_cmd_reset(void);
