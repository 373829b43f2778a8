#include "platform/parent-mac.h"

#include <cstring>
#include <filesystem>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <netpacket/packet.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "agent/build-constants.h"
#include "agent/da.h"
#include "agent/ev.h"
#include "tests/unit/support.h"

/*
 * Real frames over veth pairs in a network namespace of the test's own: eth0 to sw0, eth1 to sw1, wlan0 to
 * air0. The far ends are the switch.
 */

using bytes = std::vector<uint8_t>;

static bytes operator+(bytes a, const bytes &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

static bytes text(const std::string &characters) { return bytes(characters.begin(), characters.end()); }

static const bytes multicast = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x0E};
static const bytes eth0_mac = {0x02, 0, 0, 0, 0, 0x10};
static const bytes eth1_mac = {0x02, 0, 0, 0, 0, 0x11};
static const bytes switch_mac = {0x02, 0xBB, 0, 0, 0, 0x01};
static const bytes lldp_type = {0x88, 0xCC};
static const bytes marker = bytes{0xFE, 0x05} + bytes{VELMORA_OUI_BYTES} + bytes{0xAB, 0x01};
static const bytes end = {0, 0};

static bytes chassis(uint8_t last) { return {0x02, 0x07, 0x04, 0xA0, 0xB1, 0xC2, 0xD3, 0xE4, last}; }

static bytes answer_of(uint8_t last)
{
    return multicast + switch_mac + lldp_type + chassis(last) + marker + end;
}

static bytes ordinary_switch(uint8_t last)
{
    return multicast + switch_mac + lldp_type + chassis(last) + bytes{0x04, 0x02, 0x05, '7'} +
           bytes{0x06, 0x02, 0, 120} + end;
}

/* A raw socket at one interface. */
struct wire_end {
    int fd;
    int index;

    explicit wire_end(const char *interface)
        : fd(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0)),
          index(static_cast<int>(if_nametoindex(interface)))
    {
        struct sockaddr_ll address = {};
        address.sll_family = AF_PACKET;
        address.sll_protocol = htons(0x88CC);
        address.sll_ifindex = index;
        (void)bind(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof(address));
    }
    ~wire_end() { close(fd); }
    wire_end(const wire_end &) = delete;
    wire_end &operator=(const wire_end &) = delete;

    void send(const bytes &frame) const
    {
        ASSERT_EQ(::send(fd, frame.data(), frame.size(), 0), static_cast<ssize_t>(frame.size()))
            << strerror(errno);
    }

    /* The next frame that came in, empty when none comes in time. */
    bytes receive(int milliseconds = 2000) const
    {
        struct pollfd waiting = {fd, POLLIN, 0};
        if (poll(&waiting, 1, milliseconds) != 1)
            return {};
        uint8_t frame[2048];
        ssize_t length = recv(fd, frame, sizeof(frame), 0);
        return bytes(frame, frame + (length > 0 ? length : 0));
    }
};

class parent_mac : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        ASSERT_EQ(unshare(CLONE_NEWNET | CLONE_NEWUTS), 0);
        ASSERT_EQ(sethostname("quill-test", 10), 0);
        ip("link add eth0 address 02:00:00:00:00:10 type veth peer name sw0");
        ip("link add eth1 address 02:00:00:00:00:11 type veth peer name sw1");
        ip("link add wlan0 address 02:00:00:00:00:12 type veth peer name air0");
        for (const char *name : {"eth0", "sw0", "eth1", "sw1", "wlan0", "air0"})
            ip(std::string("link set ") + name + " up");
    }
    static void ip(const std::string &command) { ASSERT_EQ(system(("ip " + command).c_str()), 0) << command; }

    void SetUp() override
    {
        fresh_agent();
        strcpy(da.dev_info.eth_mac_addr, "02:00:00:00:00:10");
        strcpy(da.dev_info.product_name, "Strata SA");
    }

    /* Ends whatever discovery a test has left running. */
    void TearDown() override
    {
        pmac_discovery_complete = 0;
        for (int i = 0; i < 6 && !pmac_discovery_complete; i++)
            platform_find_parent_mac();
    }

    static int count_of(const std::string &message)
    {
        int count = 0;
        for (const std::string &line : logged())
            count += line == "lldp.c:" + message ? 1 : 0;
        return count;
    }
    static bool loop_until_logged(const std::string &message)
    {
        return run_loop_until([&] { return was_logged(message); });
    }
    /* An ordinary switch speaks last: when its frame was seen, so were all before it. */
    static bool loop_past(const wire_end &at)
    {
        char expected[40];
        static uint8_t last = 0x80;
        last++;
        snprintf(expected, sizeof(expected), "LLDP: A0-B1-C2-D3-E4-%02X", last);
        at.send(ordinary_switch(last));
        return loop_until_logged(expected);
    }
    static bytes expected_frame(const bytes &source, const std::string &interface)
    {
        return multicast + source + lldp_type + bytes{0x02, 0x07, 0x04, 0x02, 0, 0, 0, 0, 0x10} +
               bytes{0x04, 0x05, 0x06} + text(interface) + bytes{0x06, 0x02, 0x00, 0xB4} + bytes{0x0A, 0x0A} +
               text("quill-test") + bytes{0x0C, 0x09} + text("Strata SA") +
               bytes{0x0E, 0x04, 0x00, 0x1C, 0x00, 0x1C} + marker + end;
    }
};

/* ---- sending ---- */

TEST_F(parent_mac, an_attempt_sends_one_frame_out_of_each_port)
{
    wire_end sw0("sw0"), sw1("sw1"), air0("air0");
    EXPECT_EQ(platform_find_parent_mac(), 0);
    EXPECT_EQ(sw0.receive(), expected_frame(eth0_mac, "eth0"));
    EXPECT_EQ(sw1.receive(), expected_frame(eth1_mac, "eth1"));
    EXPECT_EQ(sw0.receive(0), bytes());
    EXPECT_EQ(sw1.receive(0), bytes());
    EXPECT_EQ(air0.receive(0), bytes());
    EXPECT_TRUE(was_logged("Sending pmac discover, device smac 02-00-00-00-00-10"));
}

TEST_F(parent_mac, after_five_attempts_nothing_more_is_sent_or_heard)
{
    wire_end sw0("sw0"), sw1("sw1");
    ASSERT_EQ(platform_start_pmac_listener(), 0);
    for (int attempt = 1; attempt <= 5; attempt++) {
        EXPECT_EQ(platform_find_parent_mac(), 0);
        EXPECT_EQ(sw0.receive(), expected_frame(eth0_mac, "eth0")) << attempt;
        EXPECT_EQ(sw1.receive(), expected_frame(eth1_mac, "eth1")) << attempt;
        EXPECT_EQ(pmac_discovery_complete, 0);
    }
    EXPECT_EQ(platform_find_parent_mac(), 0);
    EXPECT_EQ(pmac_discovery_complete, 1);
    EXPECT_TRUE(was_logged("platform_find_parent_mac: Exhausted max attempts, stopping pmac discovery"));
    EXPECT_EQ(ev_count_fds(), 0) << "the listener is gone";
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(platform_find_parent_mac(), 0);
    EXPECT_EQ(count_of("platform_find_parent_mac: Exhausted max attempts, stopping pmac discovery"), 1);
    EXPECT_EQ(count_of("Sending pmac discover, device smac 02-00-00-00-00-10"), 5);
    EXPECT_EQ(sw0.receive(0), bytes());
    EXPECT_STREQ(da.dev_info.parent_mac, "");
}

TEST_F(parent_mac, a_complete_discovery_sends_nothing)
{
    wire_end sw0("sw0");
    pmac_discovery_complete = 1;
    EXPECT_EQ(platform_find_parent_mac(), 0);
    EXPECT_EQ(sw0.receive(0), bytes());
    EXPECT_TRUE(logged().empty());
}

TEST_F(parent_mac, a_missing_port_does_not_stop_the_other)
{
    ip("link set eth0 down");
    ip("link set eth0 name gone0");
    wire_end sw1("sw1");
    testing::internal::CaptureStderr();
    EXPECT_EQ(platform_find_parent_mac(), 0);
    std::string told = testing::internal::GetCapturedStderr();
    ip("link set gone0 name eth0");
    ip("link set eth0 up");
    EXPECT_EQ(sw1.receive(), expected_frame(eth1_mac, "eth1"));
    EXPECT_TRUE(was_logged("send_lldp: SIOCG-IF-INDEX failed for eth0"));
    EXPECT_EQ(told, "SIOCG-IF-INDEX failed for eth0\n");
}

TEST_F(parent_mac, a_port_that_is_down_is_told_on_standard_error)
{
    ip("link set eth1 down");
    wire_end sw0("sw0");
    testing::internal::CaptureStderr();
    EXPECT_EQ(platform_find_parent_mac(), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "tx-lldp sendto() failed\n");
    ip("link set eth1 up");
    EXPECT_EQ(sw0.receive(), expected_frame(eth0_mac, "eth0"));
}

TEST_F(parent_mac, a_device_without_a_mac_sends_zeros)
{
    wire_end sw0("sw0");
    for (const char *mac : {"", "02:00:00:zz:00:10"}) {
        strcpy(da.dev_info.eth_mac_addr, mac);
        EXPECT_EQ(platform_find_parent_mac(), 0);
        bytes frame = sw0.receive();
        ASSERT_GT(frame.size(), 23u);
        EXPECT_EQ(bytes(frame.begin() + 17, frame.begin() + 23), bytes(6, 0));
    }
    EXPECT_EQ(count_of("Sending pmac discover, device smac 00-00-00-00-00-00"), 2);
}

/* ---- listening ---- */

TEST_F(parent_mac, a_marked_answer_is_the_parent)
{
    for (const char *port : {"sw0", "sw1"}) {
        SCOPED_TRACE(port);
        wire_end at(port);
        fresh_agent();
        ASSERT_EQ(platform_start_pmac_listener(), 0);
        EXPECT_TRUE(was_logged("platform_start_pmac_listener: Start listening for pmac response"));
        at.send(answer_of(0xF5));
        ASSERT_TRUE(run_loop_until([] { return pmac_discovery_complete == 1; }));
        EXPECT_STREQ(da.dev_info.parent_mac, "A0:B1:C2:D3:E4:F5");
        EXPECT_EQ(ev_count_fds(), 0) << "listening is over";
        std::vector<std::string> lines = logged();
        lines.erase(lines.begin());
        EXPECT_EQ(lines, (std::vector<std::string>{"lldp.c:rx_lldp: Received LLDP packet",
                                                   "lldp.c:LLDP: A0-B1-C2-D3-E4-F5",
                                                   "lldp.c:rx_lldp: Child received pmac response",
                                                   "lldp.c:rx_lldp: Received pmac A0:B1:C2:D3:E4:F5"}));
    }
}

TEST_F(parent_mac, an_ordinary_switch_is_logged_and_ignored)
{
    wire_end sw0("sw0");
    ASSERT_EQ(platform_start_pmac_listener(), 0);
    sw0.send(ordinary_switch(0x01));
    ASSERT_TRUE(loop_until_logged("LLDP: A0-B1-C2-D3-E4-01"));
    EXPECT_EQ(pmac_discovery_complete, 0);
    EXPECT_STREQ(da.dev_info.parent_mac, "");
    sw0.send(answer_of(0x02));
    EXPECT_TRUE(run_loop_until([] { return pmac_discovery_complete == 1; })) << "listening went on";
    EXPECT_STREQ(da.dev_info.parent_mac, "A0:B1:C2:D3:E4:02");
}

TEST_F(parent_mac, a_mac_of_an_earlier_frame_is_not_taken)
{
    wire_end sw0("sw0");
    ASSERT_EQ(platform_start_pmac_listener(), 0);
    sw0.send(ordinary_switch(0x01));
    sw0.send(multicast + switch_mac + lldp_type + marker + end);
    ASSERT_TRUE(run_loop_until([] { return pmac_discovery_complete == 1; }));
    EXPECT_STREQ(da.dev_info.parent_mac, "00:00:00:00:00:00");
}

TEST_F(parent_mac, our_own_frames_are_ignored)
{
    wire_end sw0("sw0"), sw1("sw1");
    ASSERT_EQ(platform_start_pmac_listener(), 0);
    EXPECT_EQ(platform_find_parent_mac(), 0);
    /* A simple switch passes what left one port on to the other. */
    bytes from_eth0 = sw0.receive();
    bytes from_eth1 = sw1.receive();
    sw1.send(from_eth0);
    sw0.send(from_eth1);
    ASSERT_TRUE(loop_past(sw0));
    ASSERT_TRUE(loop_past(sw1));
    EXPECT_EQ(pmac_discovery_complete, 0);
    EXPECT_EQ(count_of("rx_lldp: Received LLDP packet"), 2) << "the switch's two alone";
}

TEST_F(parent_mac, an_answer_from_the_radio_side_is_ignored)
{
    wire_end air0("air0"), sw0("sw0");
    ASSERT_EQ(platform_start_pmac_listener(), 0);
    air0.send(answer_of(0x66));
    ASSERT_TRUE(loop_past(sw0));
    EXPECT_EQ(pmac_discovery_complete, 0);
    EXPECT_STREQ(da.dev_info.parent_mac, "");
}

TEST_F(parent_mac, bad_frames_are_logged_and_ignored)
{
    wire_end sw0("sw0");
    ASSERT_EQ(platform_start_pmac_listener(), 0);
    sw0.send(bytes(6, 0xFF) + switch_mac + lldp_type + chassis(1) + marker);
    ASSERT_TRUE(loop_until_logged("rx_lldp: Bad LLDP packet"));
    sw0.send(multicast + switch_mac + lldp_type);
    sw0.send(multicast + switch_mac + lldp_type + bytes{0x02});
    sw0.send(multicast + switch_mac + lldp_type + bytes{0x02, 0xFF, 0x04, 1});
    sw0.send(multicast + switch_mac + lldp_type + bytes(1400, 0xFF));
    ASSERT_TRUE(loop_past(sw0));
    EXPECT_EQ(pmac_discovery_complete, 0);
    EXPECT_EQ(count_of("rx_lldp: Received LLDP packet"), 6);
    EXPECT_EQ(count_of("rx_lldp: Bad LLDP packet"), 1);
}

/* ---- starting again ---- */

static long open_descriptors(void)
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                         std::filesystem::directory_iterator());
}

TEST_F(parent_mac, a_newer_listener_closes_an_older_one)
{
    wire_end sw0("sw0");
    ASSERT_EQ(platform_start_pmac_listener(), 0);
    long before = open_descriptors();
    for (int i = 0; i < 5; i++)
        ASSERT_EQ(platform_start_pmac_listener(), 0);
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(ev_count_fds(), 1);
    ASSERT_TRUE(loop_past(sw0));
    EXPECT_EQ(count_of("rx_lldp: Received LLDP packet"), 1);
}

TEST_F(parent_mac, every_start_has_five_attempts_again)
{
    wire_end sw0("sw0");
    for (int start = 0; start < 2; start++) {
        ASSERT_EQ(platform_start_pmac_listener(), 0);
        for (int attempt = 0; attempt < 3; attempt++)
            platform_find_parent_mac();
    }
    for (int attempt = 0; attempt < 2; attempt++)
        platform_find_parent_mac();
    EXPECT_EQ(pmac_discovery_complete, 0);
    platform_find_parent_mac();
    EXPECT_EQ(pmac_discovery_complete, 1);
    EXPECT_EQ(count_of("Sending pmac discover, device smac 02-00-00-00-00-10"), 8);
}

TEST_F(parent_mac, the_last_value_stays_until_it_is_replaced)
{
    wire_end sw0("sw0");
    strcpy(da.dev_info.parent_mac, "01:02:03:04:05:06");
    ASSERT_EQ(platform_start_pmac_listener(), 0);
    EXPECT_STREQ(da.dev_info.parent_mac, "01:02:03:04:05:06");
    sw0.send(answer_of(0x02));
    ASSERT_TRUE(run_loop_until([] { return pmac_discovery_complete == 1; }));
    EXPECT_STREQ(da.dev_info.parent_mac, "A0:B1:C2:D3:E4:02");
}

TEST_F(parent_mac, sockets_do_not_pass_to_children)
{
    ASSERT_EQ(platform_start_pmac_listener(), 0);
    int sockets = 0;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fdinfo")) {
        if (!std::filesystem::read_symlink("/proc/self/fd/" + entry.path().filename().string())
                 .string()
                 .rfind("socket:", 0)) {
            std::string info = file_text(entry.path());
            unsigned long flags = strtoul(info.c_str() + info.find("flags:") + 6, nullptr, 8);
            EXPECT_TRUE(flags & O_CLOEXEC) << info;
            EXPECT_TRUE(flags & O_NONBLOCK) << info;
            sockets++;
        }
    }
    EXPECT_EQ(sockets, 1);
}

/* ---- without the right ---- */

/* Raw sockets are refused until the end of the scope. */
struct without_raw_sockets {
    struct __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    struct __user_cap_data_struct kept[2] = {};

    without_raw_sockets()
    {
        syscall(SYS_capget, &header, kept);
        struct __user_cap_data_struct fewer[2] = {kept[0], kept[1]};
        fewer[0].effective &= ~(1u << CAP_NET_RAW);
        syscall(SYS_capset, &header, fewer);
    }
    ~without_raw_sockets() { syscall(SYS_capset, &header, kept); }
};

TEST_F(parent_mac, a_listener_that_cannot_be_had_is_logged)
{
    without_raw_sockets refused;
    EXPECT_EQ(platform_start_pmac_listener(), -1);
    EXPECT_EQ(logged(), std::vector<std::string>{
                            "lldp.c:platform_start_pmac_listener: Failed to open pmac socket for rx"});
    EXPECT_EQ(ev_count_fds(), 0);
}

TEST_F(parent_mac, a_frame_that_cannot_be_sent_is_told)
{
    testing::internal::CaptureStderr();
    {
        without_raw_sockets refused;
        EXPECT_EQ(platform_find_parent_mac(), 0);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "socket creation failed. Note: need to root\n"
                                                      "socket creation failed. Note: need to root\n");
    EXPECT_EQ(count_of("send_lldp: Failed to open socket"), 2);
}
