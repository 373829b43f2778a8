#include "operations/wifid-listener.h"

#include <cerrno>
#include <cstring>

#include <sys/socket.h>

#include "agent/debug-log.h"
#include "agent/ev.h"
#include "agent/fatal.h"
#include "agent/local-socket.h"
#include "agent/owners.h"
#include "platform/wifid.h"
#include "protocol/wifid-payload.h"

#define MODULE "wifi.c"

void device_agent_msg_from_wifid_callback_init(void)
{
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    fatal_assert(fd >= 0);
    int bound = bind_local_socket(fd, FROM_WIFID_SOCKET);
    if (bound != 0)
        LOG(LOG_FAILURE, "Bind failed with error (%d:%s)", errno, strerror(errno));
    fatal_assert(bound == 0);
    int watched = ev_add_fd(fd, EV_READ, wifid_msg_rx_cb, nullptr);
    fatal_assert(watched == 0);
}

static void take_registration(json_t *payload)
{
    if (controller_connected)
        (void)register_msg_to_controller(payload);
    else
        send_controller_connected_state_update_to_wifid(0);
}

static void take_message(uint8_t dest, const char *text)
{
    json_error_t error;
    json_ptr payload(json_loads(text, JSON_DECODE_ANY | JSON_ALLOW_NUL, &error));
    if (!payload) {
        LOG(LOG_FAILURE, "Unable to load JSON ,error  on line %d: %s", error.line, error.text);
        return;
    }
    LOG(LOG_TRACE, "Received msg dest[%d] from wifid to be sent to controller;state[%s]", dest,
        controller_connected ? "connected" : "disconnected");
    switch (dest) {
    case WIFID_PAYLOAD: (void)msg_to_controller(payload.get()); break;
    case WIFID_REGISTRATION: take_registration(payload.get()); break;
    default: LOG(LOG_FAILURE, "Unknown msg type [%d] from wifid", dest); break;
    }
}

void wifid_msg_rx_cb(int32_t fd, int32_t, void *)
{
    char datagram[WIFID_DATAGRAM_LENGTH + 1];
    /* Without waiting: a datagram that is announced may prove bad when it is fetched. */
    ssize_t length = recv(fd, datagram, WIFID_DATAGRAM_LENGTH, MSG_DONTWAIT);
    if (length < 0) {
        LOG(LOG_FAILURE, "read failed. error %d:%s", errno, strerror(errno));
        return;
    }
    if (length == 0) {
        LOG(LOG_FAILURE, "Short message len %d from daemon", 0);
        return;
    }
    datagram[length] = '\0';
    take_message(static_cast<uint8_t>(datagram[0]), datagram + 1);
}
