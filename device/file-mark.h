/*
 * Has a file changed since it was read? Tells two versions apart by everything that stat(2) says, down to
 * nanoseconds, so that two changes within one second are two.
 */
#pragma once

#include <cstdint>

#include <sys/stat.h>

struct file_mark {
    dev_t device;
    ino_t inode;
    off_t size;
    int64_t changed; /* nanoseconds; moves with every write, rename and change of the other time stamps */
};

/* The mark of an open file; of a path, all zero when there is no such file. */
file_mark file_mark_of(int fd);
file_mark file_mark_of(const char *path);

bool same_mark(const file_mark &a, const file_mark &b);
