#include "tests/unit/fake-neighbours.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>

#include "agent/da.h"
#include "discovery/discover-orv.h"
#include "platform/parent-mac.h"

fake_neighbours neighbours;

int discover_orv(void)
{
    neighbours.discoveries++;
    if (neighbours.during_discovery)
        neighbours.during_discovery();
    return neighbours.discovery_result;
}

const char *get_orv_url(void) { return neighbours.orv_url; }

void set_discover_idle_time_out(void)
{
    neighbours.idle_time_outs_set++;
    idle_timeout = neighbours.idle_time_out;
}

int platform_start_pmac_listener(void)
{
    neighbours.pmac_listeners++;
    return 0;
}

int platform_find_parent_mac(void)
{
    neighbours.pmac_searches++;
    if (neighbours.pmac_searches == neighbours.pmac_complete_at_search)
        pmac_discovery_complete = 1;
    return 0;
}

/* No name server is asked: names are unknown, addresses are themselves. */
extern "C" int getaddrinfo(const char *node, const char *, const struct addrinfo *hints,
                           struct addrinfo **found)
{
    static struct sockaddr_in address;
    static struct addrinfo result;
    address = {};
    address.sin_family = AF_INET;
    if (inet_pton(AF_INET, node, &address.sin_addr) != 1)
        return EAI_NONAME;
    result = {};
    result.ai_family = AF_INET;
    result.ai_socktype = hints->ai_socktype;
    result.ai_addr = reinterpret_cast<struct sockaddr *>(&address);
    result.ai_addrlen = sizeof(address);
    *found = &result;
    return 0;
}

extern "C" void freeaddrinfo(struct addrinfo *) noexcept {}
