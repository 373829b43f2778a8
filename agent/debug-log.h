/*
 * The agent's own log: one time-stamped line per call in "/var/log/device-agent.log", copied to standard
 * output and handed to the log stream. The file rotates itself to ".old" by size. It is opened for every
 * line, so that anybody may rotate or delete it.
 */
#pragma once

#include <cstdio>

#include "agent/owners.h"

/* Levels: a line is written when its level is at most da.debug_level. */
enum {
    LOG_FAILURE = 0,
    LOG_NOTABLE = 1,
    LOG_EVENT = 2,
    LOG_TRACE = 3,
};

#define AGENT_LOG_FILE "/var/log/device-agent.log"

enum {
    LOG_LINE_SIZE = 1024,     /* prefix, message and NUL; longer lines are cut */
    LOG_ROTATE_SIZE = 102401, /* bytes at which a file is moved away before the next line */
};

/*
 * Writes one line. `file` is the module name (see MODULE in each source), `line` the source line. Returns 1
 * when the level filters the line out, otherwise 0, also when the log file cannot be opened: logging never
 * fails its caller.
 */
int debug_log(const char *file, int line, int level, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

/* Logs under the module name that the source defines as MODULE. */
#define LOG(level, ...) debug_log(MODULE, __LINE__, level, __VA_ARGS__)

/*
 * The pieces that the agent's log and the library's log share: open a log for appending, after moving it away
 * when it is full (null when it cannot be opened), and put one line into it and on standard output.
 */
file_ptr log_open(const char *path);
void log_put(FILE *file, const char *line);

/* Local time as "%F %H:%M:%S" into a 20-byte buffer. */
void log_time_stamp(char (&stamp)[20]);

/*
 * While one of these lives, lines go to the file only. Whoever sends logged lines on has one: a line about
 * the sending would chase its own tail.
 */
struct log_file_only {
    log_file_only();
    ~log_file_only();
    log_file_only(const log_file_only &) = delete;
    log_file_only &operator=(const log_file_only &) = delete;
};

/* Called in a child process: its lines go to the file only, never to the log stream. */
void log_set_child(void);
