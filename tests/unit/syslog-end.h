/*
 * The system log's end of "/dev/log", for tests that read what is logged there.
 */
#pragma once

#include <string>

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

struct syslog_end {
    int fd;

    syslog_end() : fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        closelog(); /* it would keep talking to the socket of an earlier test */
        struct sockaddr_un address = {AF_UNIX, "/dev/log"};
        unlink(address.sun_path);
        (void)bind(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof(address));
    }
    ~syslog_end()
    {
        close(fd);
        unlink("/dev/log");
    }
    syslog_end(const syslog_end &) = delete;
    syslog_end &operator=(const syslog_end &) = delete;

    /* The next line, "(nothing)" when there is none: logging is synchronous, so there is nothing to wait for.
     */
    std::string receive(void)
    {
        char line[2048];
        ssize_t length = recv(fd, line, sizeof(line), MSG_DONTWAIT);
        return length < 0 ? "(nothing)" : std::string(line, static_cast<size_t>(length));
    }
};
