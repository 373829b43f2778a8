#include "operations/nslookup.h"

#include <cstdio>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "agent/debug-log.h"
#include "agent/owners.h"
#include "agent/text.h"
#include "protocol/command-output.h"

#define MODULE "exec-cmd.c"

enum {
    FAILURE_SIZE = 128,
    LINE_SIZE = 256, /* host, address and what stands around them */
};

static int tell_failure(int error)
{
    char text[FAILURE_SIZE];
    copy_text(text, gai_strerror(error));
    LOG(LOG_FAILURE, "%s", text);
    (void)send_exec_cmd_output(text, "Complete");
    exec_running = 0;
    return -1;
}

/* A result of another family counts as one with the address 0.0.0.0, which is not shown. */
static void tell_result(const char *host, const struct addrinfo *result)
{
    struct in_addr address = {INADDR_ANY};
    if (result->ai_family == AF_INET)
        address = reinterpret_cast<const struct sockaddr_in *>(result->ai_addr)->sin_addr;
    char quad[INET_ADDRSTRLEN];
    (void)inet_ntop(AF_INET, &address, quad, sizeof(quad));
    LOG(LOG_TRACE, "Name:\t%s Address:%s\n", host, quad);
    if (address.s_addr == INADDR_ANY)
        return;
    char line[LINE_SIZE];
    snprintf(line, sizeof(line), "Name:%s Address:%s ", host, quad);
    (void)send_exec_cmd_output(line, "InProgress");
}

int do_nslookup(const char *host)
{
    LOG(LOG_TRACE, "%s: ENTRY host=%s", "do_nslookup", host);
    struct addrinfo hints = {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;
    struct addrinfo *found = nullptr;
    int error = getaddrinfo(host, nullptr, &hints, &found);
    if (error != 0)
        return tell_failure(error);
    addrinfo_ptr results(found);
    (void)send_exec_cmd_output("", "Initiated");
    for (const struct addrinfo *result = found; result; result = result->ai_next)
        tell_result(host, result);
    (void)send_exec_cmd_output("", "Complete");
    exec_running = 0;
    return 0;
}
