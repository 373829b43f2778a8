#include "tests/unit/fake-icmp.h"

#include <cerrno>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

fake_icmp icmp;

static int near_end = -1; /* the agent's */

void fake_icmp_reset(void)
{
    if (icmp.far_end >= 0)
        close(icmp.far_end);
    icmp = fake_icmp();
    near_end = -1;
}

void fake_icmp_arrive_raw(const std::string &packet)
{
    EXPECT_EQ(send(icmp.far_end, packet.data(), packet.size(), MSG_DONTWAIT | MSG_NOSIGNAL),
              static_cast<ssize_t>(packet.size()));
}

void fake_icmp_arrive(const std::string &icmp_packet)
{
    fake_icmp_arrive_raw("\x45" + std::string(19, '\0') + icmp_packet);
}

std::string echo_reply(int identifier, int sequence)
{
    std::string packet(64, '\0');
    packet[4] = static_cast<char>(identifier >> 8);
    packet[5] = static_cast<char>(identifier);
    packet[6] = static_cast<char>(sequence >> 8);
    packet[7] = static_cast<char>(sequence);
    return packet;
}

extern "C" {

int __real_socket(int family, int type, int protocol);
int __wrap_socket(int family, int type, int protocol);
ssize_t __real_sendto(int fd, const void *bytes, size_t length, int flags, const struct sockaddr *to,
                      socklen_t size);
ssize_t __wrap_sendto(int fd, const void *bytes, size_t length, int flags, const struct sockaddr *to,
                      socklen_t size);
ssize_t __real_recvfrom(int fd, void *bytes, size_t length, int flags, struct sockaddr *from,
                        socklen_t *size);
ssize_t __wrap_recvfrom(int fd, void *bytes, size_t length, int flags, struct sockaddr *from,
                        socklen_t *size);
int __real_setsockopt(int fd, int level, int name, const void *value, socklen_t size);
int __wrap_setsockopt(int fd, int level, int name, const void *value, socklen_t size);
struct protoent *__wrap_getprotobyname(const char *name);
struct hostent *__wrap_gethostbyname(const char *name);

int __wrap_socket(int family, int type, int protocol)
{
    if (family != AF_INET || (type & 0x0F) != SOCK_RAW)
        return __real_socket(family, type, protocol);
    icmp.protocol = protocol;
    if (icmp.refuse) {
        errno = icmp.refuse;
        return -1;
    }
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_DGRAM | (type & SOCK_CLOEXEC), 0, ends) != 0)
        return -1;
    if (icmp.far_end >= 0)
        close(icmp.far_end);
    icmp.far_end = ends[1];
    near_end = ends[0];
    icmp.sockets++;
    return near_end;
}

ssize_t __wrap_sendto(int fd, const void *bytes, size_t length, int flags, const struct sockaddr *to,
                      socklen_t size)
{
    if (fd != near_end)
        return __real_sendto(fd, bytes, length, flags, to, size);
    if (icmp.refuse_sending) {
        errno = icmp.refuse_sending;
        return -1;
    }
    auto *target = reinterpret_cast<const struct sockaddr_in *>(to);
    icmp.packets.emplace_back(static_cast<const char *>(bytes), length);
    icmp.targets.push_back(std::string(inet_ntoa(target->sin_addr)) + ":" +
                           std::to_string(ntohs(target->sin_port)));
    return static_cast<ssize_t>(length);
}

ssize_t __wrap_recvfrom(int fd, void *bytes, size_t length, int flags, struct sockaddr *from, socklen_t *size)
{
    if (fd == near_end && icmp.refuse_reading) {
        errno = icmp.refuse_reading;
        return -1;
    }
    return __real_recvfrom(fd, bytes, length, flags, from, size);
}

int __wrap_setsockopt(int fd, int level, int name, const void *value, socklen_t size)
{
    if (fd != near_end)
        return __real_setsockopt(fd, level, name, value, size);
    icmp.options[name].assign(static_cast<const char *>(value), size);
    return 0;
}

struct protoent *__wrap_getprotobyname(const char *name)
{
    static struct protoent found = {};
    found.p_proto = 1;
    return icmp.knows_icmp && std::string(name) == "icmp" ? &found : nullptr;
}

struct hostent *__wrap_gethostbyname(const char *name)
{
    static struct in_addr address;
    static char *addresses[2];
    static struct hostent found;
    icmp.lookups++;
    auto known = icmp.names.find(name);
    if (known == icmp.names.end())
        return nullptr;
    addresses[0] = inet_aton(known->second.c_str(), &address) ? reinterpret_cast<char *>(&address) : nullptr;
    found = {};
    found.h_addrtype = AF_INET;
    found.h_length = sizeof(address);
    found.h_addr_list = addresses;
    return &found;
}
}
