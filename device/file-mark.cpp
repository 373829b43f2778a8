#include "device/file-mark.h"

static int64_t nanoseconds(const struct timespec &time)
{
    return int64_t{time.tv_sec} * 1000000000 + time.tv_nsec;
}

static file_mark mark_from(const struct stat &status)
{
    return {status.st_dev, status.st_ino, status.st_size, nanoseconds(status.st_ctim)};
}

file_mark file_mark_of(int fd)
{
    struct stat status;
    return fstat(fd, &status) == 0 ? mark_from(status) : file_mark{};
}

file_mark file_mark_of(const char *path)
{
    struct stat status;
    return stat(path, &status) == 0 ? mark_from(status) : file_mark{};
}

bool same_mark(const file_mark &a, const file_mark &b)
{
    return a.device == b.device && a.inode == b.inode && a.size == b.size && a.changed == b.changed;
}
