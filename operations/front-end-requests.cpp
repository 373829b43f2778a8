#include "operations/front-end-requests.h"

#include <cerrno>
#include <cstring>

#include <jansson.h>
#include <sys/socket.h>
#include <sys/types.h>

#include "agent/debug-log.h"
#include "agent/ev.h"
#include "agent/hooks.h"
#include "agent/local-socket.h"
#include "agent/owners.h"
#include "platform/front-end.h"
#include "protocol/error-codes.h"
#include "protocol/received.h"
#include "protocol/scan-failure.h"

#define MODULE "wifi.c"

enum { CONNECTIONS_WAITING = 5 };

/* ---- the connection ---- */

int platform_fcgi_server_init(void)
{
    fd_guard listener(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (listener.fd < 0) {
        LOG(LOG_FAILURE, "Failed to create socket for %s (%d:%s)", FRONT_END_SOCKET, errno, strerror(errno));
        return -1;
    }
    if (bind_local_socket(listener.fd, FRONT_END_SOCKET) != 0) {
        LOG(LOG_FAILURE, "Bind failed with error (%d:%s)\n", errno, strerror(errno));
        return -1;
    }
    if (listen(listener.fd, CONNECTIONS_WAITING) != 0) {
        LOG(LOG_FAILURE, "Listen failed with error (%d:%s)\n", errno, strerror(errno));
        return -1;
    }
    if (ev_add_fd(listener.fd, EV_READ, fcgi_accept_cb, nullptr) != 0)
        return -1;
    (void)listener.release();
    return 0;
}

void fcgi_accept_cb(int32_t fd, int32_t, void *)
{
    int connection = accept4(fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (connection < 0 || front_end_take(connection, fcgi_recv_cb) != 0)
        LOG(LOG_FAILURE, "Failed accept4");
}

void fcgi_close_client(bool abort_command)
{
    if (abort_command)
        (void)call_hook(hooks.abort_exec_cmd, nullptr, nullptr);
    front_end_drop();
}

/* ---- requests ---- */

static void exec_cmd(const json_t *request)
{
    LOG(LOG_TRACE, "%s: MSG_EXEC_CMD received", "fcgi_recv_cb");
    char refusal[ERROR_STRING_SIZE] = ""; /* a request without a command is refused without a text */
    if (call_hook(hooks.parse_exec_cmd, request, refusal) != NO_ERROR) {
        LOG(LOG_FAILURE, "Exec command failure : %s", refusal);
        fcgi_close_client(true);
        return;
    }
    (void)call_hook(hooks.start_exec_cmd, request, 0, nullptr);
}

static void exec_stop(const json_t *request)
{
    LOG(LOG_TRACE, "%s: MSG_EXEC_STOP received", "fcgi_recv_cb");
    (void)call_hook(hooks.abort_exec_cmd, request, nullptr);
}

static void radio_scan(const json_t *request)
{
    LOG(LOG_TRACE, "%s: MSG_RADIO_SCAN_REQUEST received", "fcgi_recv_cb");
    char refusal[ERROR_STRING_SIZE] = "";
    if (call_hook(hooks.parse_radio_scan_request, request, refusal, 0) == NO_ERROR)
        return;
    LOG(LOG_FAILURE, "Radio scan failure : %s", refusal);
    orv_radio_scan = 0;
    send_scan_failure_msg(refusal);
    orv_radio_scan = 1;
    fcgi_close_client(true);
}

static void handle_request(const char *text)
{
    json_error_t error;
    json_ptr request(json_loads(text, 0, &error));
    if (!request) {
        LOG(LOG_FAILURE, "Failed to load json %d %s", error.line, error.text);
        fcgi_close_client(false);
        return;
    }
    const json_t *type = json_object_get(request.get(), "msgType");
    if (!type) {
        LOG(LOG_FAILURE, "Failed to find message type");
        fcgi_close_client(true);
        return;
    }
    switch (json_integer_value(type)) {
    case MSG_EXEC_CMD: exec_cmd(request.get()); break;
    case MSG_EXEC_STOP: exec_stop(request.get()); break;
    case MSG_RADIO_SCAN_REQUEST: radio_scan(request.get()); break;
    default:
        LOG(LOG_FAILURE, "%s: UNKNOWN message received", "fcgi_recv_cb");
        fcgi_close_client(false);
        break;
    }
}

void fcgi_recv_cb(int32_t fd, int32_t, void *)
{
    LOG(LOG_TRACE, "Got fcgi request %d", fd);
    char text[FRONT_END_REQUEST_LENGTH + 1];
    ssize_t length = recv(fd, text, FRONT_END_REQUEST_LENGTH, MSG_DONTWAIT);
    if (length <= 0) {
        fcgi_close_client(false);
        return;
    }
    text[length] = '\0';
    handle_request(text);
}
