#include "tests/unit/fake-stats-daemon.h"

#include <cerrno>
#include <cstring>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "agent/owners.h"
#include "device/scmd.h"
#include "stats/stats-daemon.h"

static int listener = -1, peer = -1, accepted;

static void shut(int &fd)
{
    if (fd >= 0)
        close(fd);
    fd = -1;
}

void daemon_listen(void)
{
    daemon_die();
    accepted = 0;
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, STATS_DAEMON_SOCKET);
    listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
    ASSERT_EQ(listen(listener, 8), 0);
}

void daemon_die(void)
{
    if (peer >= 0)
        (void)shutdown(peer, SHUT_RDWR); /* a child of the agent, born here, may still hold a copy */
    shut(listener);
    shut(peer);
    (void)unlink(STATS_DAEMON_SOCKET);
}

static bool readable(int fd)
{
    struct pollfd waiting = {fd, POLLIN, 0};
    return fd >= 0 && poll(&waiting, 1, 0) > 0;
}

static void accept_newest(void)
{
    int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0)
        return;
    shut(peer);
    peer = fd;
    accepted++;
}

bool daemon_was_asked(void)
{
    if (readable(listener))
        accept_newest();
    return readable(peer) && !daemon_was_left();
}

std::string daemon_request(void)
{
    char *text = nullptr;
    size_t length = 0;
    if (!daemon_was_asked() || read_a_msg(peer, &text, &length) != 0)
        return "";
    malloc_text owner(text);
    return {text, length};
}

void daemon_answer(const std::string &text)
{
    daemon_send(frame_header(static_cast<unsigned>(text.size())) + text);
}

void daemon_send(const std::string &bytes)
{
    EXPECT_EQ(send(peer, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
}

int daemon_connections(void)
{
    if (readable(listener))
        accept_newest();
    return accepted;
}

bool daemon_was_left(void)
{
    char byte;
    ssize_t received = recv(peer, &byte, 1, MSG_DONTWAIT | MSG_PEEK);
    return received == 0 || (received < 0 && errno != EAGAIN);
}

std::string frame_header(unsigned length)
{
    std::string header;
    for (int shift : {24, 16, 8, 0})
        header += static_cast<char>(length >> shift & 0xFF);
    return header;
}
