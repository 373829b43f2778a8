#include "platform/parent-mac.h"

#include <cstdio>
#include <cstring>

#include <arpa/inet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <netpacket/packet.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "agent/da.h"
#include "agent/debug-log.h"
#include "agent/ev.h"
#include "agent/owners.h"
#include "agent/text.h"
#include "platform/lldp.h"

#define MODULE "lldp.c"

enum { MAX_ATTEMPTS = 5 };

/* The wired ports; what comes in anywhere else, from a radio say, is no answer. */
static const char *const ports[] = {"eth0", "eth1"};

static int pmac_fd = -1; /* the listening socket */
static int attempts;     /* of the running discovery */

/* ---- interfaces ---- */

static int open_packet_socket(int protocol)
{
    return socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, htons(static_cast<uint16_t>(protocol)));
}

/* Asks the kernel about an interface: its index, its hardware address. 0 or -1. */
static int ask_interface(int fd, const char *name, unsigned long request, struct ifreq *answer)
{
    *answer = {};
    copy_text(answer->ifr_name, name);
    return ioctl(fd, request, answer);
}

static int get_index(int fd, const char *name, int *index)
{
    struct ifreq answer;
    if (ask_interface(fd, name, SIOCGIFINDEX, &answer) != 0)
        return -1;
    *index = answer.ifr_ifindex;
    return 0;
}

static int get_hardware_address(int fd, const char *name, uint8_t (&mac)[LLDP_MAC_SIZE])
{
    struct ifreq answer;
    if (ask_interface(fd, name, SIOCGIFHWADDR, &answer) != 0)
        return -1;
    memcpy(mac, answer.ifr_hwaddr.sa_data, LLDP_MAC_SIZE);
    return 0;
}

/* All zero when the text is no MAC. */
static void parse_device_mac(uint8_t (&mac)[LLDP_MAC_SIZE])
{
    if (sscanf(da.dev_info.eth_mac_addr, "%hhx:%hhx:%hhx:%hhx:%hhx:%hhx", &mac[0], &mac[1], &mac[2], &mac[3],
               &mac[4], &mac[5]) != LLDP_MAC_SIZE)
        memset(mac, 0, sizeof(mac));
}

/* ---- sending ---- */

static int send_frame(int fd, int index, const uint8_t *frame, size_t length)
{
    struct sockaddr_ll to = {};
    to.sll_family = AF_PACKET;
    to.sll_protocol = htons(LLDP_ETHERTYPE);
    to.sll_ifindex = index;
    to.sll_halen = LLDP_MAC_SIZE;
    memcpy(to.sll_addr, lldp_multicast, LLDP_MAC_SIZE);
    ssize_t sent = sendto(fd, frame, length, 0, reinterpret_cast<struct sockaddr *>(&to), sizeof(to));
    return sent == static_cast<ssize_t>(length) ? 0 : -1;
}

/* One frame out of one interface. 0 or -1. */
static int send_lldp(const char *interface, const char *host_name, const char *product_name,
                     const uint8_t (&device_mac)[LLDP_MAC_SIZE])
{
    fd_guard packet(open_packet_socket(ETH_P_ALL));
    if (packet.fd < 0) {
        LOG(LOG_FAILURE, "%s: Failed to open socket", "send_lldp");
        fprintf(stderr, "socket creation failed. Note: need to root\n");
        return -1;
    }
    int index;
    if (get_index(packet.fd, interface, &index) != 0) {
        LOG(LOG_NOTABLE, "%s: SIOCG-IF-INDEX failed for %s", "send_lldp", interface);
        fprintf(stderr, "SIOCG-IF-INDEX failed for %s\n", interface);
        return -1;
    }
    lldp_identity identity = {};
    if (get_hardware_address(packet.fd, interface, identity.source) != 0) {
        LOG(LOG_FAILURE, "%s: SIOCG-IF-HWADDR failed for %s", "send_lldp", interface);
        fprintf(stderr, "SIOCG-IF-HWADDR failed for %s\n", interface);
        return -1;
    }
    memcpy(identity.device, device_mac, LLDP_MAC_SIZE);
    identity.interface = interface;
    identity.host_name = host_name;
    identity.product_name = product_name;
    uint8_t frame[LLDP_FRAME_SIZE];
    size_t length = lldp_build(identity, frame);
    if (send_frame(packet.fd, index, frame, length) != 0) {
        fprintf(stderr, "tx-lldp sendto() failed\n");
        return -1;
    }
    return 0;
}

static void send_to_all_ports(void)
{
    char host_name[256] = "";
    (void)gethostname(host_name, sizeof(host_name) - 1);
    uint8_t mac[LLDP_MAC_SIZE];
    parse_device_mac(mac);
    LOG(LOG_EVENT, "Sending pmac discover, device smac %02X-%02X-%02X-%02X-%02X-%02X", mac[0], mac[1], mac[2],
        mac[3], mac[4], mac[5]);
    for (const char *port : ports)
        (void)send_lldp(port, host_name, da.dev_info.product_name, mac);
}

/* ---- listening ---- */

static void close_listener(void)
{
    if (pmac_fd < 0)
        return;
    ev_del_fd(pmac_fd);
    close(pmac_fd);
    pmac_fd = -1;
}

/*
 * Only what came in at one of the ports and was not sent by us is looked at. Our own frame comes back where
 * both ports hang on the same simple switch.
 */
static bool is_from_a_peer(int fd, const struct sockaddr_ll &from, const uint8_t *source)
{
    bool at_a_port = false;
    for (const char *port : ports) {
        int index;
        uint8_t mac[LLDP_MAC_SIZE];
        if (get_index(fd, port, &index) == 0 && index == from.sll_ifindex)
            at_a_port = true;
        if (get_hardware_address(fd, port, mac) == 0 && memcmp(mac, source, LLDP_MAC_SIZE) == 0)
            return false;
    }
    return at_a_port && from.sll_pkttype != PACKET_OUTGOING;
}

static void accept_answer(const uint8_t (&mac)[LLDP_MAC_SIZE])
{
    LOG(LOG_EVENT, "%s: Child received pmac response", "rx_lldp");
    char *text = da.dev_info.parent_mac;
    snprintf(text, sizeof(da.dev_info.parent_mac), "%02X:%02X:%02X:%02X:%02X:%02X", mac[0], mac[1], mac[2],
             mac[3], mac[4], mac[5]);
    LOG(LOG_EVENT, "%s: Received pmac %s", "rx_lldp", text);
    pmac_discovery_complete = 1;
    close_listener();
}

static void rx_lldp(int32_t fd, int32_t, void *)
{
    uint8_t frame[LLDP_FRAME_SIZE];
    struct sockaddr_ll from = {};
    socklen_t from_length = sizeof(from);
    ssize_t received =
        recvfrom(fd, frame, sizeof(frame), 0, reinterpret_cast<struct sockaddr *>(&from), &from_length);
    if (received <= 0) {
        LOG(LOG_FAILURE, "%s: recv'd %d", "rx_lldp", static_cast<int>(received));
        return;
    }
    size_t length = static_cast<size_t>(received);
    if (length >= size_t{2} * LLDP_MAC_SIZE && !is_from_a_peer(fd, from, frame + LLDP_MAC_SIZE))
        return;

    LOG(LOG_TRACE, "%s: Received LLDP packet", "rx_lldp");
    lldp_answer answer;
    if (lldp_parse(frame, length, &answer) != 0) {
        LOG(LOG_FAILURE, "%s: Bad LLDP packet", "rx_lldp");
        return;
    }
    const uint8_t *mac = answer.chassis;
    LOG(LOG_TRACE, "LLDP: %02X-%02X-%02X-%02X-%02X-%02X", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    if (answer.marked)
        accept_answer(answer.chassis);
}

/* Real network hardware drops multicast that nobody asked for. A port that is missing has nothing to hear. */
static void join_multicast(int fd)
{
    for (const char *port : ports) {
        struct packet_mreq membership = {};
        if (get_index(fd, port, &membership.mr_ifindex) != 0)
            continue;
        membership.mr_type = PACKET_MR_MULTICAST;
        membership.mr_alen = LLDP_MAC_SIZE;
        memcpy(membership.mr_address, lldp_multicast, LLDP_MAC_SIZE);
        (void)setsockopt(fd, SOL_PACKET, PACKET_ADD_MEMBERSHIP, &membership, sizeof(membership));
    }
}

int platform_start_pmac_listener(void)
{
    close_listener();
    attempts = 0;
    fd_guard packet(open_packet_socket(LLDP_ETHERTYPE));
    if (packet.fd < 0 || ev_add_fd(packet.fd, EV_READ, rx_lldp, nullptr) != 0) {
        LOG(LOG_FAILURE, "%s: Failed to open pmac socket for rx", "platform_start_pmac_listener");
        return -1;
    }
    join_multicast(packet.fd);
    pmac_fd = packet.release();
    LOG(LOG_EVENT, "%s: Start listening for pmac response", "platform_start_pmac_listener");
    return 0;
}

/* ---- one attempt ---- */

int platform_find_parent_mac(void)
{
    if (pmac_discovery_complete)
        return 0;
    if (attempts < MAX_ATTEMPTS) {
        attempts++;
        send_to_all_ports();
        return 0;
    }
    LOG(LOG_EVENT, "%s: Exhausted max attempts, stopping pmac discovery", "platform_find_parent_mac");
    pmac_discovery_complete = 1;
    attempts = 0;
    close_listener();
    return 0;
}
