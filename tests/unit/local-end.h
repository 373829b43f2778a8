/*
 * The other end of the agent's local sockets, for tests that speak as a program of the device.
 */
#pragma once

#include <cerrno>
#include <cstring>
#include <string>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "agent/ev.h"
#include "agent/local-socket.h"

struct local_end {
    int fd;

    /* Connects to the path; -1 in `fd` with errno when that fails. */
    local_end(int type, const char *path) : fd(socket(AF_UNIX, type | SOCK_CLOEXEC, 0))
    {
        struct sockaddr_un address;
        if (local_address(path, &address) == 0 &&
            connect(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof(address)) == 0)
            return;
        int reason = errno;
        shut();
        errno = reason;
    }
    ~local_end() { shut(); }
    local_end(const local_end &) = delete;
    local_end &operator=(const local_end &) = delete;

    void shut(void)
    {
        if (fd >= 0)
            close(fd);
        fd = -1;
    }

    bool say(const std::string &bytes) const
    {
        return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT) ==
               static_cast<ssize_t>(bytes.size());
    }

    /* The next packet: "(nothing)" when there is none, "(closed)" when the agent has closed. */
    std::string hear(void) const
    {
        char packet[65536];
        ssize_t length = recv(fd, packet, sizeof(packet), MSG_DONTWAIT);
        if (length < 0)
            return errno == EAGAIN ? "(nothing)" : "(closed)";
        return length == 0 ? "(closed)" : std::string(packet, static_cast<size_t>(length));
    }
};

/* Closes every descriptor that the loop watches and forgets it. */
inline void close_watched(void)
{
    for (int fd = 0; fd < EV_FD_LIMIT; fd++)
        if (ev_watched(fd)) {
            ev_del_fd(fd);
            close(fd);
        }
}
