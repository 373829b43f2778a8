#include "platform/front-end.h"

#include <sys/socket.h>
#include <unistd.h>

#include "agent/debug-log.h"
#include "agent/ev.h"

#define MODULE "wifi.c"

int32_t fcgi_client_fd = -1;

int front_end_take(int32_t fd, void (*callback)(int32_t fd, int32_t event, void *arg))
{
    if (ev_add_fd(fd, EV_READ, callback, nullptr) != 0) {
        close(fd);
        return -1;
    }
    front_end_drop();
    fcgi_client_fd = fd;
    return 0;
}

void front_end_drop(void)
{
    if (fcgi_client_fd < 0)
        return;
    ev_del_fd(fcgi_client_fd);
    close(fcgi_client_fd);
    fcgi_client_fd = -1;
}

int write_to_fcgi(const char *text, size_t length)
{
    if (fcgi_client_fd < 0)
        LOG(LOG_NOTABLE, "Failed to send as fcgi connectivity lost");
    else if (send(fcgi_client_fd, text, length, MSG_NOSIGNAL | MSG_DONTWAIT) < 0)
        LOG(LOG_FAILURE, "Failed to send message");
    return 0;
}
