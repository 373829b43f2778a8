#include "agent/local-socket.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "agent/debug-log.h"

#define MODULE "utils.c"

enum { STRANGERS = S_IXUSR | S_IXGRP | S_IRWXO }; /* the mode's bits that a local socket goes without */

int local_address(const char *path, struct sockaddr_un *address)
{
    *address = {};
    address->sun_family = AF_UNIX;
    size_t length = strlen(path);
    if (length >= sizeof(address->sun_path)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(address->sun_path, path, length);
    return 0;
}

/* Without the group, or where it cannot be given, the socket is root's alone. */
static void give_to_group(const char *path)
{
    enum { ENTRY_SIZE = 4096 };
    char entry[ENTRY_SIZE]; /* not the library's own, which would stay in the heap for ever */
    struct group group;
    struct group *found = nullptr;
    (void)getgrnam_r(LOCAL_SOCKET_GROUP, &group, entry, sizeof(entry), &found);
    if (found && chown(path, 0, found->gr_gid) != 0)
        LOG(LOG_NOTABLE, "Failed to give %s to group %s:%s", path, LOCAL_SOCKET_GROUP, strerror(errno));
}

/* A stale socket or file goes. A folder that somebody has made here stands aside, with what is in it, or no
 * program of the device would ever reach the agent. */
static void make_way(const char *path)
{
    if (unlink(path) == 0 || errno != EISDIR || rmdir(path) == 0)
        return;
    std::string aside = std::string(path) + ".aside";
    if (rename(path, aside.c_str()) == 0)
        LOG(LOG_FAILURE, "A folder at %s has been moved to %s", path, aside.c_str());
}

int bind_local_socket(int fd, const char *path)
{
    struct sockaddr_un address;
    if (local_address(path, &address) != 0)
        return -1;
    make_way(path); /* what cannot be removed makes the bind fail */
    mode_t before = umask(STRANGERS);
    int result = bind(fd, reinterpret_cast<const struct sockaddr *>(&address), sizeof(address));
    int reason = errno;
    (void)umask(before);
    if (result == 0)
        give_to_group(path);
    errno = reason;
    return result;
}
