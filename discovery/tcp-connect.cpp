#include "discovery/tcp-connect.h"

#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <sys/socket.h>

#include "agent/debug-log.h"
#include "agent/ev.h"
#include "agent/owners.h"
#include "agent/utils.h"
#include "discovery/fd-wait.h"
#include "platform/connection-status.h"

#define MODULE "https-client.c"

static int open_socket(void)
{
    fd_guard sock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (sock.fd < 0 || sock.fd >= EV_FD_LIMIT) {
        LOG(LOG_FAILURE, "Not able to open the socket");
        return -1;
    }
    return sock.release();
}

static int connect_failed(int error)
{
    LOG(LOG_FAILURE, "Error connecting %d - %s\n", error, strerror(error));
    return -1;
}

/* Waits for the verdict on a connect that is under way. */
static int finish_connect(int fd)
{
    wait_outcome outcome = wait_for_fd(fd, EV_WRITE, deadline_in(TCP_CONNECT_SECONDS));
    if (outcome == WAIT_OVERTAKEN)
        return -1;
    if (outcome == WAIT_TIMED_OUT) {
        LOG(LOG_FAILURE, "Timeout in select() - Cancelling!\n");
        return -1;
    }
    if (outcome == WAIT_FAILED)
        return connect_failed(errno);
    /* A refused connection is writable too. */
    int error = 0;
    socklen_t size = sizeof(error);
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0)
        error = errno;
    if (error != 0)
        return connect_failed(error);
    LOG(LOG_EVENT, "Open connection ok");
    return 0;
}

static int connect_to(int fd, const char *address_text, int32_t port)
{
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    if (inet_pton(AF_INET, address_text, &address.sin_addr) != 1)
        return connect_failed(EINVAL);
    if (connect(fd, reinterpret_cast<const struct sockaddr *>(&address), sizeof(address)) == 0)
        return 0;
    if (errno != EINPROGRESS)
        return connect_failed(errno);
    LOG(LOG_TRACE, "EINPROGRESS in connect()\n");
    return finish_connect(fd);
}

int tcp_connect(const char *host, int32_t port)
{
    char address_text[ADDRESS_TEXT_SIZE] = "";
    if (hostname_to_ip(host, address_text) != 0) {
        LOG(LOG_FAILURE, "Not able to resolve  %s ", host);
        platform_set_orv_connection_state(ORV_RESOLVING_URL, nullptr);
        return -1;
    }
    platform_set_orv_connection_state(ORV_CONNECTING, nullptr);
    LOG(LOG_EVENT, "Resolved router %s to %s", host, address_text);

    fd_guard sock(open_socket());
    if (sock.fd < 0 || connect_to(sock.fd, address_text, port) != 0) {
        LOG(LOG_FAILURE, "OpenConnection to %s:%d failed ", host, port);
        return -1;
    }
    return sock.release();
}
