/*
 * agentctl trap
 */
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include <poll.h>
#include <sys/socket.h>

#include "agentctl/exit-codes.h"
#include "agentctl/local-socket.h"
#include "agentctl/output.h"
#include "agentctl/usage.h"
#include "agentctl/verbs.h"

#define EVENT_SOCKET "/tmp/heron_event_sock"

enum {
    EVENT_LIMIT = 2048, /* bytes that the agent reads of an event */
    EVENT_WAIT = 2000,  /* milliseconds for a full socket to take it */
};

/* With these the agent takes it for the report of a firmware download. */
static const char *const reserved[] = {"{\"msgType\":401", "{\"msgType\":701"};

/* All of standard input, up to one byte more than may be sent, without its last newline. */
static std::string read_event(void)
{
    std::string text(EVENT_LIMIT + 2, '\0');
    text.resize(fread(text.data(), 1, text.size(), stdin));
    if (!text.empty() && text.back() == '\n')
        text.pop_back();
    return text;
}

/* What is wrong with an event, or null. */
static const char *event_complaint(const std::string &text)
{
    if (text.empty())
        return "the event is empty";
    if (text.size() > EVENT_LIMIT)
        return "the event is longer than 2048 bytes";
    if (text.find('\0') != std::string::npos)
        return "the event holds a NUL byte, where the agent would cut it";
    for (const char *prefix : reserved)
        if (text.compare(0, strlen(prefix), prefix) == 0)
            return "the agent would take this for the report of a firmware download";
    return nullptr;
}

int verb_trap(int argc, char **argv)
{
    if (argc != 2)
        return usage_error("trap", argc < 2 ? "an event is missing" : "one event at a time; quote the text");
    std::string text = strcmp(argv[1], "-") == 0 ? read_event() : argv[1];
    if (const char *complaint = event_complaint(text))
        return usage_error("trap", complaint);
    fd_guard sock(connect_local(EVENT_SOCKET, SOCK_DGRAM));
    if (sock.fd < 0)
        return EXIT_UNAVAILABLE;
    struct pollfd wanted = {sock.fd, POLLOUT, 0};
    if (poll(&wanted, 1, EVENT_WAIT) == 0) {
        complain("the agent does not take events: its socket has been full for 2 s");
        return EXIT_UNAVAILABLE;
    }
    if (send(sock.fd, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT) !=
        static_cast<ssize_t>(text.size())) {
        complain("the event was not taken: %s", strerror(errno));
        return EXIT_UNAVAILABLE;
    }
    return EXIT_GOOD;
}
