#include "platform/local-socket.h"

#include <cerrno>
#include <cstring>

#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

enum { SOCKET_UMASK = 0117 };

/* Where there is no such group, or it cannot be looked up, root alone remains. */
static void give_to_group(const char *path)
{
    char names[4096];
    struct group entry;
    struct group *found = nullptr;
    if (getgrnam_r(LOCAL_SOCKET_GROUP, &entry, names, sizeof(names), &found) == 0 && found)
        (void)!lchown(path, 0, found->gr_gid);
}

int bind_local_socket(int fd, const char *path)
{
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    size_t length = strlen(path);
    if (length >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(address.sun_path, path, length);
    (void)unlink(path);
    mode_t before = umask(SOCKET_UMASK);
    int result = bind(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof(address));
    int reason = errno;
    (void)umask(before);
    if (result == 0)
        give_to_group(path);
    errno = reason;
    return result;
}
