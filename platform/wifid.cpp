#include "platform/wifid.h"

#include <cerrno>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>

#include "agent/debug-log.h"
#include "agent/local-socket.h"
#include "agent/owners.h"

#define MODULE "wifi.c"

int32_t controller_connected;

static ssize_t send_datagram(int fd, const char *path, uint8_t dest, const char *text, size_t length)
{
    struct sockaddr_un address;
    if (local_address(path, &address) != 0)
        return -1;
    struct iovec parts[] = {{&dest, sizeof(dest)}, {const_cast<char *>(text), length}};
    struct msghdr message = {};
    message.msg_name = &address;
    message.msg_namelen = sizeof(address);
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    return sendmsg(fd, &message, MSG_NOSIGNAL);
}

int send_msg_to_wifid(const char *path, uint8_t dest, const char *text, size_t length)
{
    fd_guard wifid(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (wifid.fd < 0) {
        LOG(LOG_FAILURE, "Failed to create socket for %s message", path);
        return -1;
    }
    if (send_datagram(wifid.fd, path, dest, text, length) < 0) {
        LOG(LOG_FAILURE, "Failed to send message to %s:%s", path, strerror(errno));
        return -1;
    }
    return 0;
}

void send_controller_connected_state_update_to_wifid(int32_t status)
{
    controller_connected = status;
    json_ptr update(json_pack("{s:i}", "status", status));
    malloc_text text(update ? json_dumps(update.get(), JSON_PRESERVE_ORDER) : nullptr);
    if (!text) {
        LOG(LOG_FAILURE, "json dump failed %s", "send_controller_connected_state_update_to_wifid");
        return;
    }
    (void)send_msg_to_wifid(TO_WIFID_SOCKET, WIFID_CONNECTED_UPDATE, text.get(), strlen(text.get()));
}
