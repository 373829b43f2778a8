#include "agentctl/front-end.h"

#include <cerrno>
#include <cstring>
#include <string>

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>

#include "agentctl/agent-process.h"
#include "agentctl/local-socket.h"
#include "agentctl/output.h"
#include "platform/front-end.h"

enum { PACKET_SIZE = 262144 }; /* more than a socket takes in one packet: a scan's result is the longest */

int connect_front_end(bool commands, bool *was_running)
{
    int others = open_connections(FRONT_END_SOCKET);
    std::vector<std::string> running = running_commands(find_agent_process().pid);
    *was_running = !running.empty();
    int fd = connect_local(FRONT_END_SOCKET, SOCK_SEQPACKET);
    if (fd < 0)
        return -1;
    if (others > 0)
        complain("warning: another front end was connected to the agent; this takes its place");
    for (const std::string &command : running)
        if (commands)
            complain("warning: the agent was running \"%s\", which is stopped", command.c_str());
    return fd;
}

int send_message(int fd, json_t *message)
{
    json_ptr owned(message);
    malloc_text text(json_dumps(message, JSON_COMPACT));
    size_t length = text ? strlen(text.get()) : 0;
    if (text && send(fd, text.get(), length, MSG_NOSIGNAL) == static_cast<ssize_t>(length))
        return 0;
    complain("the agent did not take the request: %s", strerror(errno));
    return -1;
}

received_kind receive_message(int fd, int milliseconds, const sigset_t *mask, json_ptr *message)
{
    struct timespec limit = {milliseconds / 1000, (milliseconds % 1000) * 1000000L};
    struct pollfd wanted = {fd, POLLIN, 0};
    int ready = ppoll(&wanted, 1, milliseconds < 0 ? nullptr : &limit, mask);
    if (ready <= 0)
        return RECEIVED_NOTHING;
    std::string bytes(PACKET_SIZE, '\0');
    ssize_t count = recv(fd, bytes.data(), bytes.size(), 0);
    if (count < 0 && (errno == EAGAIN || errno == EINTR))
        return RECEIVED_NOTHING;
    if (count <= 0)
        return RECEIVED_END;
    message->reset(json_loadb(bytes.data(), static_cast<size_t>(count), 0, nullptr));
    return json_is_object(message->get()) ? RECEIVED_MESSAGE : RECEIVED_NOTHING;
}

int message_type(const json_t *message)
{
    const json_t *type = json_object_get(message, "msgType");
    return json_is_integer(type) ? static_cast<int>(json_integer_value(type)) : -1;
}
