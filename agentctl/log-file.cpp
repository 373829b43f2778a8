#include "agentctl/log-file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

/* All from the place reached so far on. */
static std::string rest_of(followed_log *log)
{
    std::string text;
    struct stat status;
    if (log->fd < 0)
        return text;
    if (fstat(log->fd, &status) == 0 && status.st_size < log->at)
        log->at = 0; /* somebody emptied it */
    char bytes[16384];
    ssize_t count;
    while ((count = pread(log->fd, bytes, sizeof(bytes), log->at)) > 0) {
        text.append(bytes, static_cast<size_t>(count));
        log->at += count;
    }
    return text;
}

/* A pipe or a device in its place would hold us up or never end. */
static int open_plain(const char *path)
{
    int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat status;
    if (fd >= 0 && (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode))) {
        close(fd);
        fd = -1;
    }
    return fd;
}

static std::string last_lines(const std::string &text, size_t lines)
{
    size_t at = text.size();
    if (lines > 0 && at > 0 && text[at - 1] == '\n')
        at--; /* it ends the last line */
    for (; lines > 0; lines--) {
        at = at == 0 ? std::string::npos : text.rfind('\n', at - 1);
        if (at == std::string::npos)
            return text;
    }
    return at == text.size() ? "" : text.substr(at + 1);
}

std::string open_log(followed_log *log, size_t lines)
{
    log->fd = open_plain(log->path.c_str());
    return last_lines(rest_of(log), lines);
}

/* Whether the path now leads to another file than the one that is being read. */
static bool has_successor(const followed_log *log)
{
    struct stat here;
    struct stat there;
    if (stat(log->path.c_str(), &there) != 0)
        return false; /* moved away: the successor comes with the next line */
    return log->fd < 0 || fstat(log->fd, &here) != 0 || here.st_ino != there.st_ino ||
           here.st_dev != there.st_dev;
}

std::string read_new(followed_log *log)
{
    bool over = has_successor(log); /* looked at first: what is over gets no further line */
    std::string text = rest_of(log);
    if (!over)
        return text;
    close_log(log);
    log->fd = open_plain(log->path.c_str());
    return text + rest_of(log);
}

void close_log(followed_log *log)
{
    if (log->fd >= 0)
        close(log->fd);
    log->fd = -1;
    log->at = 0;
}
