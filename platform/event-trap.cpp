#include "platform/event-trap.h"

#include <cstring>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "agent/debug-log.h"
#include "agent/ev.h"
#include "agent/local-socket.h"
#include "agent/owners.h"
#include "agent/txq.h"
#include "platform/identity.h"

#define MODULE "wifi.c"

#define EVENT_SOCKET "/tmp/heron_event_sock"

enum { WAITING_EVENTS = 1024 }; /* more than a socket holds */

int32_t https_download_status;

static int event_fd = -1;

/* Datagrams that begin so are for the agent itself. */
static const struct {
    const char *prefix;
    int level;
    const char *text;
    int32_t status;
} reports[] = {
    {"{\"msgType\":401", LOG_EVENT, "Firmware download completed", DOWNLOAD_COMPLETE},
    {"{\"msgType\":701", LOG_FAILURE, "Firmware download failed", DOWNLOAD_FAILED},
};

const char *platform_get_event_sock_path(void) { return EVENT_SOCKET; }

int platform_event_listener(void)
{
    fd_guard listener(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (listener.fd < 0) {
        LOG(LOG_FAILURE, "Fail to set up unix socket");
        return -1;
    }
    if (bind_local_socket(listener.fd, EVENT_SOCKET) != 0) {
        LOG(LOG_FAILURE, "bind() of unix domain socket  failed");
        return -1;
    }
    if (ev_add_fd(listener.fd, EV_READ, event_rx_cb, nullptr) != 0) {
        LOG(LOG_FAILURE, "Fail to set up unix socket");
        return -1;
    }
    event_fd = listener.release();
    return 0;
}

/* True when the text is a report, which is dealt with. */
static bool take_report(const char *text)
{
    for (const auto &report : reports) {
        if (strncmp(text, report.prefix, strlen(report.prefix)) != 0)
            continue;
        LOG(report.level, "%s", report.text);
        https_download_status = report.status;
        return true;
    }
    return false;
}

void event_rx_cb(int32_t fd, int32_t, void *)
{
    set_log_level(); /* a changed severity takes effect with the next event */
    char text[EVENT_SIZE + 1];
    ssize_t length = recv(fd, text, EVENT_SIZE, 0);
    if (length < 0) {
        LOG(LOG_TRACE, "Not data to read on Trap/Event socket");
        return;
    }
    text[length] = '\0';
    if (take_report(text))
        return;
    LOG(LOG_TRACE, "%s: Trap Data received, send to Orvanta len=%d data [%s]", "event_rx_cb",
        static_cast<int>(length), text);
    (void)write_to_orv(text, strlen(text), 0);
}

static bool event_is_waiting(void)
{
    struct pollfd socket = {event_fd, POLLIN, 0};
    return event_fd >= 0 && poll(&socket, 1, 0) > 0;
}

void take_waiting_events(void)
{
    for (int i = 0; i < WAITING_EVENTS && event_is_waiting(); i++)
        event_rx_cb(event_fd, EV_READ, nullptr);
}

void event_listener_reset(void)
{
    if (event_fd < 0)
        return;
    ev_del_fd(event_fd);
    close(event_fd);
    event_fd = -1;
}
