#include <cstring>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>

#include "device/tavosutils.h"

static bool has_ipv4(const struct ifaddrs *entry)
{
    return entry->ifa_addr && entry->ifa_addr->sa_family == AF_INET;
}

static bool is_other_choice(const struct ifaddrs *entry)
{
    return (entry->ifa_flags & IFF_UP) && !(entry->ifa_flags & IFF_LOOPBACK);
}

/* "eth0" wherever it stands in the list, else the first other choice; null when there is none. */
static const struct ifaddrs *choose(const struct ifaddrs *list)
{
    const struct ifaddrs *other = nullptr;
    for (const struct ifaddrs *entry = list; entry; entry = entry->ifa_next) {
        if (!has_ipv4(entry))
            continue;
        if (strcmp(entry->ifa_name, "eth0") == 0)
            return entry;
        if (!other && is_other_choice(entry))
            other = entry;
    }
    return other;
}

int get_device_ip(char *buffer)
{
    buffer[0] = '\0';
    struct ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0)
        return -1;
    int result = -1;
    if (const struct ifaddrs *chosen = choose(list)) {
        struct sockaddr_in address;
        memcpy(&address, chosen->ifa_addr, sizeof(address));
        if (inet_ntop(AF_INET, &address.sin_addr, buffer, DEVICE_IP_SIZE))
            result = 0;
    }
    freeifaddrs(list);
    return result;
}
