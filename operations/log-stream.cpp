#include "operations/log-stream.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <sys/socket.h>
#include <unistd.h>

#include "agent/debug-log.h"
#include "agent/ev.h"
#include "agent/local-socket.h"
#include "agent/owners.h"
#include "agent/text.h"
#include "protocol/command-output.h"

#define MODULE "log.c"

int32_t log_streaming;

static char log_ring[LOG_RING_LINES][LOG_SLOT_SIZE]; /* a slot whose first byte is 0 was never written */
static int log_next;                                 /* the slot written next */
static int log_server_fd = -1;

/* ---- the ring ---- */

static void fill_slot(char (&slot)[LOG_SLOT_SIZE], const char *line)
{
    size_t length = strnlen(line, LOG_SLOT_SIZE);
    bool fits = length <= LOG_SLOT_SIZE - 2;
    if (!fits)
        length = utf8_whole(line, LOG_SLOT_SIZE - 1);
    memcpy(slot, line, length);
    if (fits)
        slot[length++] = '\n';
    slot[length] = '\0';
}

void append_logs(const char *line)
{
    char(&slot)[LOG_SLOT_SIZE] = log_ring[log_next];
    fill_slot(slot, line);
    if (log_streaming) {
        log_file_only quiet;
        (void)send_exec_cmd_output(slot, "InProgress");
    }
    log_next = (log_next + 1) % LOG_RING_LINES;
}

/* A copy of the lines, oldest first. */
static std::vector<std::string> copy_history(void)
{
    std::vector<std::string> lines;
    int oldest = log_ring[log_next][0] ? log_next : 0;
    for (int i = 0; i < LOG_RING_LINES; i++) {
        const char *slot = log_ring[(oldest + i) % LOG_RING_LINES];
        if (!slot[0])
            break;
        lines.emplace_back(slot);
    }
    return lines;
}

/* ---- the stream ---- */

static void send_history(const std::vector<std::string> &lines)
{
    std::string batch;
    int count = 0;
    for (const std::string &line : lines) {
        batch += line;
        if (++count < LOG_BATCH_LINES)
            continue;
        (void)send_exec_cmd_output(batch.c_str(), "InProgress");
        LOG(LOG_TRACE, "%s: Send log history (%d lines)", "start_orv_logging", count);
        batch.clear();
        count = 0;
    }
    if (count > 0)
        (void)send_exec_cmd_output(batch.c_str(), "InProgress");
}

void start_orv_logging(void)
{
    if (log_streaming)
        return;
    log_streaming = 1;
    log_file_only quiet;
    std::vector<std::string> history = copy_history();
    (void)send_exec_cmd_output("", "Initiated");
    send_history(history);
}

int stop_orv_logging(void)
{
    if (!log_streaming)
        return 0;
    log_file_only quiet;
    (void)send_exec_cmd_output("", "Complete");
    log_streaming = 0;
    return 1;
}

/* ---- lines of other programs ---- */

int log_server_init(void)
{
    fd_guard server(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (server.fd < 0) {
        LOG(LOG_FAILURE, "Failed to open logserver socket %s", strerror(errno));
        return -1;
    }
    if (bind_local_socket(server.fd, LOG_SERVER_SOCKET) != 0) {
        LOG(LOG_FAILURE, "Failed to bind logserver socket %s", strerror(errno));
        return -1;
    }
    if (ev_add_fd(server.fd, EV_READ, log_server_rx_cb, nullptr) != 0) {
        LOG(LOG_FAILURE, "Failed to open logserver socket %s", strerror(EMFILE));
        return -1;
    }
    log_server_fd = server.release();
    return 0;
}

void log_server_rx_cb(int32_t fd, int32_t, void *)
{
    char line[LOG_DATAGRAM_LENGTH + 1];
    ssize_t length = recv(fd, line, LOG_DATAGRAM_LENGTH, 0);
    if (length < 0) {
        int reason = errno;
        LOG(LOG_FAILURE, "read failed on logserver. error %d:%s\n", reason, strerror(reason));
        return;
    }
    line[length] = '\0';
    append_logs(line);
}

void log_stream_reset(void)
{
    memset(log_ring, 0, sizeof(log_ring));
    log_next = 0;
    log_streaming = 0;
    if (log_server_fd < 0)
        return;
    ev_del_fd(log_server_fd);
    close(log_server_fd);
    log_server_fd = -1;
}
