/*
 * A local program's end of a datagram socket: sends, and tells how the kernel answered.
 */
#pragma once

#include <cerrno>
#include <cstring>
#include <string>

#include <grp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "agent/owners.h"

/* Sends one datagram without waiting. Returns 0, or the errno. */
inline int send_datagram_to(const char *path, const std::string &data)
{
    fd_guard sender(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path, sizeof(address.sun_path) - 1);
    ssize_t sent = sendto(sender.fd, data.data(), data.size(), MSG_NOSIGNAL,
                          reinterpret_cast<struct sockaddr *>(&address), sizeof(address));
    return sent < 0 ? errno : 0;
}

/* The same from a process of another user, with one group. Returns 0 or its errno. */
inline int send_datagram_as(uid_t user, gid_t group, const char *path, const std::string &data)
{
    pid_t child = fork();
    if (child == 0) {
        if (setgroups(0, nullptr) != 0 || setgid(group) != 0 || setuid(user) != 0)
            _exit(255);
        _exit(send_datagram_to(path, data));
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
