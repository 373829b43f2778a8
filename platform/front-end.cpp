#include "platform/front-end.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "agent/debug-log.h"
#include "agent/ev.h"

#define MODULE "wifi.c"

int32_t fcgi_client_fd = -1;

static void (*waiting)(void); /* to be called when it is ready; the connection is watched for it then */

/* ---- readiness ---- */

bool front_end_ready(void)
{
    struct pollfd connection = {fcgi_client_fd, POLLOUT, 0};
    return fcgi_client_fd < 0 || poll(&connection, 1, 0) != 0;
}

static void resume_waiting(void)
{
    void (*resume)(void) = waiting;
    waiting = nullptr;
    if (resume)
        resume();
}

static void writable_cb(int32_t fd, int32_t, void *)
{
    ev_del_fd(fd); /* the newest entry, this one: requests are still read */
    resume_waiting();
}

void front_end_wait(void (*resume)(void))
{
    const bool watched = waiting;
    waiting = resume;
    if (fcgi_client_fd < 0 || (!watched && ev_add_fd(fcgi_client_fd, EV_WRITE, writable_cb, nullptr) != 0))
        resume_waiting();
}

/* ---- the connection ---- */

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
    if (waiting)
        ev_del_fd(fcgi_client_fd); /* for writing */
    ev_del_fd(fcgi_client_fd);
    close(fcgi_client_fd);
    fcgi_client_fd = -1;
    resume_waiting();
}

int write_to_fcgi(const char *text, size_t length)
{
    if (fcgi_client_fd < 0)
        LOG(LOG_NOTABLE, "Failed to send as fcgi connectivity lost");
    else if (send(fcgi_client_fd, text, length, MSG_NOSIGNAL | MSG_DONTWAIT) < 0)
        LOG(LOG_FAILURE, "Failed to send message");
    return 0;
}
