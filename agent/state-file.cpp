#include "agent/state-file.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "agent/owners.h"

static bool write_whole(int fd, std::string_view text)
{
    while (!text.empty()) {
        ssize_t written = write(fd, text.data(), text.size());
        if (written < 0 && errno != EINTR)
            return false;
        if (written > 0)
            text.remove_prefix(static_cast<size_t>(written));
    }
    return true;
}

/* A rename is on the medium only when its folder is; a folder that cannot be synced (tmpfs can) is no
 * failure. */
static void sync_folder_of(const std::string &path)
{
    fd_guard folder(open(path.substr(0, path.rfind('/') + 1).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder.fd >= 0)
        (void)fsync(folder.fd);
}

/*
 * Opens the file beside the place and tells its name. A fixed name, so that kills leave at most one behind;
 * where a stranger occupies it ("/tmp" is everybody's) a name of the moment does.
 */
static int open_beside(const char *path, mode_t mode, std::string *beside)
{
    *beside = std::string(path) + ".new";
    (void)unlink(beside->c_str()); /* left over from a kill, or a link somebody laid there */
    int fd = open(beside->c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    if (fd >= 0 || (errno != EEXIST && errno != EISDIR))
        return fd;
    *beside += ".XXXXXX";
    fd = mkostemp(beside->data(), O_CLOEXEC);
    if (fd >= 0)
        (void)fchmod(fd, mode);
    return fd;
}

int replace_file(const char *path, std::string_view text, mode_t mode)
{
    std::string beside;
    fd_guard file(open_beside(path, mode, &beside));
    if (file.fd < 0)
        return -1;
    if (write_whole(file.fd, text) && fsync(file.fd) == 0 && rename(beside.c_str(), path) == 0) {
        sync_folder_of(path);
        return 0;
    }
    int reason = errno;
    (void)unlink(beside.c_str());
    errno = reason;
    return -1;
}

int adopt_file(const char *beside, const char *path)
{
    fd_guard file(open(beside, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status;
    if (file.fd < 0 || fstat(file.fd, &status) != 0)
        return -1;
    if (!S_ISREG(status.st_mode)) {
        errno = EINVAL;
        return -1;
    }
    if (fsync(file.fd) != 0 || rename(beside, path) != 0)
        return -1;
    sync_folder_of(path);
    return 0;
}
