/*
 * Following a log file that is moved away when it is full, and whose successor is made by the next line.
 */
#pragma once

#include <cstddef>
#include <functional>
#include <string>

#include <sys/types.h>

/* A log that is being read. */
struct followed_log {
    std::string path;
    int fd = -1; /* -1: there is no file yet */
    off_t at = 0;
};

/* Opens it behind all but its last `lines` lines; returns those. A missing file has none. */
std::string open_log(followed_log *log, size_t lines);

/* Whatever is new, also over a rotation: the rest of the old file first, then the new one from its start. */
std::string read_new(followed_log *log);

void close_log(followed_log *log);
