/*
 * The Wi-Fi daemon's end of the socket, for tests that read what the agent sends it.
 */
#pragma once

#include <cstring>
#include <string>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/wifid.h"

struct wifid_end {
    int fd;

    wifid_end() : fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        struct sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        strncpy(address.sun_path, TO_WIFID_SOCKET, sizeof(address.sun_path) - 1);
        unlink(TO_WIFID_SOCKET);
        (void)bind(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof(address));
    }
    ~wifid_end()
    {
        close(fd);
        unlink(TO_WIFID_SOCKET);
    }
    wifid_end(const wifid_end &) = delete;
    wifid_end &operator=(const wifid_end &) = delete;

    /* The next datagram, "(nothing)" when there is none: sending is synchronous, so there is nothing to wait
     * for. */
    std::string receive(void)
    {
        char datagram[2048];
        ssize_t length = recv(fd, datagram, sizeof(datagram), MSG_DONTWAIT);
        return length < 0 ? "(nothing)" : std::string(datagram, static_cast<size_t>(length));
    }
};
