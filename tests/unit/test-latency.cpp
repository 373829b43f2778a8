#include "operations/latency.h"

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <vector>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

#include "operations/echo-packet.h"
#include "protocol/dispatcher.h"
#include "protocol/error-codes.h"
#include "tests/unit/connection-test.h"
#include "tests/unit/fake-icmp.h"
#include "tests/unit/queued.h"

static const char request[] = "{\"msgType\": 112, \"destination\": \"host.example\"}";
static const char refusal[] =
    "{\"msgType\": 712, \"code\": \"BadRequest\", \"message\": \"Latency test already in progress\"}";

class latency_test : public connection_test {
protected:
    void SetUp() override
    {
        connection_test::SetUp();
        fake_icmp_reset();
        gPid = 0x34711; /* the upper bits do not count */
        da.state = DA_STATE_CONNECTED;
    }
    void TearDown() override
    {
        latency_reset();
        fake_icmp_reset();
        da.state = DA_STATE_IDLE;
        connection_test::TearDown();
    }
};

enum { OURS = 0x4711 };

/* A message as the session hands it over. Returns the handler's status. */
static int handle(const std::string &text)
{
    std::string buffer = text + '}';
    return handle_orv_msg(buffer.data(), text.size(), nullptr);
}

/* The reply to a probe comes after so many microseconds. */
static void answer(int sequence, int64_t microseconds, int identifier = OURS)
{
    fake_clock_advance(0, microseconds);
    fake_icmp_arrive(echo_reply(identifier, sequence));
    ev_main();
}

static std::string result_of(int milliseconds)
{
    return "{\"msgType\": 412, \"avgLatency\": " + std::to_string(milliseconds) + "}";
}

/* ---- answered, not answered ---- */

TEST_F(latency_test, three_answers)
{
    EXPECT_EQ(handle(request), 0);
    answer(1, 10000);
    answer(2, 20000);
    EXPECT_EQ(txq, nullptr) << "not before the last";
    answer(3, 31000);
    EXPECT_EQ(take_one_queued(), result_of(20)) << "61 / 3, whole milliseconds";
    EXPECT_EQ(icmp.packets.size(), 3u);
    EXPECT_EQ(icmp.sockets, 1);
    EXPECT_EQ(ev_count_fds(), 0);
    EXPECT_EQ(send(icmp.far_end, "x", 1, MSG_NOSIGNAL), -1) << "the socket is closed";
}

TEST_F(latency_test, the_log_of_a_good_test)
{
    handle("{\"msgType\": 112, \"destination\": \"host.example\", \"tries\": 10}");
    answer(1, 10000);
    answer(2, 20000);
    answer(3, 31000);
    for (const char *line : {
             "Test latency with destination: host.example  tries 10",
             "Sending Latency Test Msg# 1",
             "seq=1 latency nsec=10000000",
             "Got echo reply! seq=1 lat_msec=10 bytes=64 Sent @ 1000 sec 0 nsec, Rcvd @ 1000 sec 10000000 "
             "nsec",
             "Sending Latency Test Msg# 2",
             "Sending Latency Test Msg# 3",
             "Got echo reply! seq=3 lat_msec=31 bytes=64 Sent @ 1000 sec 30000000 nsec, Rcvd @ 1000 sec "
             "61000000 nsec",
             "Latency Test Complete seq=3",
             "Total responses=3 total_time=61 avg_lat_msec=20",
             "build_and_send_latency_data: JSON Object: [{\"msgType\": 412, \"avgLatency\": 20}]",
         })
        EXPECT_TRUE(was_logged(line)) << line;
    EXPECT_FALSE(was_logged_beginning("seq=1 errno"));
    EXPECT_FALSE(was_logged("latency timer already running")) << "an answer stops its probe's timer";
    EXPECT_EQ(icmp.packets.size(), 3u) << "whatever was asked for";
}

TEST_F(latency_test, only_the_second_probe_is_answered)
{
    handle(request);
    EXPECT_TRUE(run_until([] { return icmp.packets.size() == 2; }, 3));
    EXPECT_TRUE(was_logged("No latency response for seq 1"));
    answer(2, 25000);
    EXPECT_EQ(icmp.packets.size(), 3u);
    EXPECT_TRUE(run_until([] { return txq != nullptr; }, 3));
    EXPECT_EQ(take_one_queued(), result_of(25));
    EXPECT_TRUE(was_logged("Latency Test Complete"));
    EXPECT_TRUE(was_logged("Total responses=1 total_time=25 avg_lat_msec=25"));
}

TEST_F(latency_test, no_probe_is_answered)
{
    handle(request);
    int64_t begun = fake_clock_now();
    EXPECT_TRUE(run_until([] { return txq != nullptr; }, 9));
    EXPECT_EQ(take_one_queued(), result_of(-1));
    EXPECT_EQ(icmp.packets.size(), 3u);
    EXPECT_GE(fake_clock_now() - begun, 3000000);
    EXPECT_TRUE(was_logged("No latency data received"));
    EXPECT_TRUE(was_logged("No latency response for seq 3"));
    EXPECT_TRUE(was_logged("Total responses=0 total_time=0 avg_lat_msec=-1"));
    EXPECT_EQ(ev_count_fds(), 0);
}

TEST_F(latency_test, an_old_test_does_not_shine_through)
{
    handle(request);
    for (int n : {1, 2, 3})
        answer(n, 5000);
    EXPECT_EQ(take_one_queued(), result_of(5));
    run_seconds(3);
    handle(request);
    EXPECT_TRUE(run_until([] { return txq != nullptr; }, 9));
    EXPECT_EQ(take_one_queued(), result_of(-1));
}

TEST_F(latency_test, an_answer_to_an_earlier_probe_uses_up_the_one_in_flight)
{
    handle(request);
    EXPECT_TRUE(run_until([] { return icmp.packets.size() == 2; }, 3));
    answer(1, 1000);
    EXPECT_TRUE(was_logged("Not our message s=1 seq=2, ignoring"));
    EXPECT_EQ(icmp.packets.size(), 3u);
    EXPECT_TRUE(was_logged("latency timer already running"));
    answer(3, 40000);
    EXPECT_EQ(take_one_queued(), result_of(40));
}

/* ---- other packets ---- */

TEST_F(latency_test, a_packet_of_another_ping_uses_up_the_probe)
{
    handle(request);
    answer(1, 1000, OURS + 1);
    EXPECT_TRUE(was_logged("Not our message s=1 seq=1, ignoring"));
    EXPECT_TRUE(was_logged("Sending Latency Test Msg# 2"));
    EXPECT_TRUE(was_logged("latency timer already running"));
    answer(2, 7000);
    answer(3, 8000);
    EXPECT_EQ(take_one_queued(), result_of(7)) << "(7 + 8) / 2";
}

TEST_F(latency_test, the_timer_of_a_used_up_probe_strikes_the_next)
{
    handle(request);
    answer(1, 1000, OURS + 1);
    answer(2, 1000, OURS + 1);
    EXPECT_EQ(icmp.packets.size(), 3u);
    EXPECT_TRUE(run_until([] { return txq != nullptr; }, 3));
    EXPECT_TRUE(was_logged("No latency response for seq 3"));
    EXPECT_EQ(take_one_queued(), result_of(-1));
}

TEST_F(latency_test, a_timer_that_outlives_the_test_finds_nothing)
{
    handle(request);
    for (int n : {1, 2, 3})
        answer(n, 1000, OURS + 1);
    EXPECT_EQ(take_one_queued(), result_of(-1));
    EXPECT_TRUE(was_logged("Latency Test Complete seq=3"));
    EXPECT_EQ(ev_count_timers(), 2) << "the first probe's, and the refusal's end";
    run_seconds(4);
    EXPECT_EQ(ev_count_timers(), 0);
    EXPECT_EQ(txq, nullptr);
    EXPECT_FALSE(was_logged_beginning("No latency response"));
    EXPECT_FALSE(was_logged_beginning("STALE"));
}

TEST_F(latency_test, a_packet_that_is_cut_is_not_ours)
{
    handle(request);
    fake_icmp_arrive(echo_reply(OURS, 1).substr(0, 7));
    ev_main();
    EXPECT_TRUE(was_logged("Not our message s=-1 seq=1, ignoring"));
    fake_icmp_arrive_raw("\x4F" + std::string(63, '\0')); /* a header length beyond the packet */
    ev_main();
    EXPECT_TRUE(was_logged("Not our message s=-1 seq=2, ignoring"));
    fake_icmp_arrive_raw("\x45");
    ev_main();
    EXPECT_TRUE(was_logged("Not our message s=-1 seq=3, ignoring"));
    EXPECT_EQ(take_one_queued(), result_of(-1));
}

TEST_F(latency_test, an_ip_header_with_options)
{
    handle(request);
    fake_clock_advance(0, 3000);
    fake_icmp_arrive_raw("\x47" + std::string(27, '\0') + echo_reply(OURS, 1));
    ev_main();
    EXPECT_TRUE(was_logged_beginning("Got echo reply! seq=1 lat_msec=3 bytes=64"));
}

TEST_F(latency_test, any_bytes_do_no_harm)
{
    unsigned seed = 20261121;
    for (int round = 0; round < 2000; round++) {
        if (icmp.far_end < 0 || ev_count_fds() == 0) {
            latency_reset();
            handle(request);
        }
        std::string packet;
        size_t length = (seed = seed * 1103515245 + 12345) / 65536 % 70;
        for (size_t i = 0; i < length; i++)
            packet += static_cast<char>((seed = seed * 1103515245 + 12345) / 65536);
        fake_icmp_arrive_raw(packet);
        ev_main();
        purge_txq();
    }
    EXPECT_GT(icmp.sockets, 600);
}

/* ---- errors ---- */

TEST_F(latency_test, an_empty_packet_counts_as_an_error)
{
    handle(request);
    fake_icmp_arrive_raw("");
    ev_main();
    EXPECT_TRUE(was_logged("recvfrom returned error 0 seq=1"));
    EXPECT_TRUE(was_logged("Sending Latency Test Msg# 2"));
    EXPECT_FALSE(was_logged_beginning("seq=1 errno="));
    EXPECT_TRUE(run_until([] { return txq != nullptr; }, 9));
    EXPECT_EQ(take_one_queued(), result_of(-1)) << "it is no answer";
}

TEST_F(latency_test, a_read_error_uses_up_the_probe)
{
    handle(request);
    answer(1, 9000);
    icmp.refuse_reading = EHOSTUNREACH;
    answer(2, 1000);
    EXPECT_TRUE(was_logged("seq=2 errno=113"));
    EXPECT_TRUE(was_logged("recvfrom returned error 113 seq=2"));
    EXPECT_EQ(icmp.packets.size(), 3u);
    answer(2, 1000); /* what was not read is still there */
    EXPECT_EQ(take_one_queued(), result_of(9));
    EXPECT_TRUE(was_logged("recvfrom returned error 113 seq=3"));
    EXPECT_TRUE(was_logged("Latency Test Complete seq=3"));
}

TEST_F(latency_test, a_probe_that_cannot_be_sent_is_not_answered)
{
    icmp.refuse_sending = ENETUNREACH;
    testing::internal::CaptureStderr();
    handle(request);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "sendto: Network is unreachable\n");
    EXPECT_TRUE(run_until([] { return icmp.lookups == 2; }, 3)) << "the timer goes on";
    icmp.refuse_sending = 0;
    EXPECT_TRUE(run_until([] { return icmp.packets.size() == 1; }, 3));
    answer(3, 6000);
    EXPECT_EQ(take_one_queued(), result_of(6));
}

TEST_F(latency_test, a_device_without_raw_sockets_stays_busy)
{
    icmp.refuse = EPERM;
    testing::internal::CaptureStderr();
    EXPECT_EQ(handle(request), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "socket: Operation not permitted\n");
    EXPECT_TRUE(was_logged("socket() failed errno=1"));
    EXPECT_EQ(txq, nullptr);
    run_seconds(60);
    EXPECT_EQ(handle(request), 1);
    EXPECT_EQ(take_one_queued(), refusal);
    EXPECT_EQ(icmp.lookups, 0);
}

TEST_F(latency_test, a_device_that_does_not_know_the_protocols_name)
{
    icmp.knows_icmp = false;
    handle(request);
    EXPECT_TRUE(was_logged("getprotobyname() failed"));
    EXPECT_EQ(icmp.protocol, 1);
    EXPECT_EQ(icmp.packets.size(), 1u);
}

TEST_F(latency_test, an_answer_that_comes_too_late_for_any_probe)
{
    handle(request);
    EXPECT_TRUE(run_until([] { return txq != nullptr; }, 9));
    EXPECT_EQ(take_one_queued(), result_of(-1));
    EXPECT_EQ(send(icmp.far_end, "x", 1, MSG_NOSIGNAL), -1) << "nobody is there any more";
}

/* ---- the destination ---- */

TEST_F(latency_test, an_unknown_host)
{
    EXPECT_EQ(handle("{\"msgType\": 112, \"destination\": \"nowhere.example\"}"), 0);
    EXPECT_EQ(take_one_queued(), result_of(-1)) << "at once";
    EXPECT_TRUE(was_logged("Not able to resolve nowhere.example"));
    EXPECT_TRUE(was_logged("Latency Test Complete seq=1"));
    EXPECT_TRUE(icmp.packets.empty());
    EXPECT_EQ(ev_count_fds(), 0);
    EXPECT_EQ(handle(request), 1) << "as after a normal end";
    EXPECT_EQ(take_one_queued(), refusal);
    run_seconds(2);
    EXPECT_EQ(handle(request), 0);
    EXPECT_EQ(icmp.packets.size(), 1u);
}

TEST_F(latency_test, a_name_without_an_address)
{
    icmp.names["odd.example"] = "";
    handle("{\"msgType\": 112, \"destination\": \"odd.example\"}");
    EXPECT_EQ(take_one_queued(), result_of(-1));
}

TEST_F(latency_test, a_host_that_becomes_unknown_ends_the_test)
{
    handle(request);
    icmp.names.clear();
    answer(1, 10000);
    EXPECT_EQ(take_one_queued(), result_of(-1)) << "whatever the first probe found";
    EXPECT_TRUE(was_logged("Latency Test Complete seq=2"));
    run_seconds(2);
    icmp.names["host.example"] = "192.0.2.9";
    EXPECT_EQ(handle(request), 0);
    EXPECT_EQ(icmp.packets.size(), 2u);
}

TEST_F(latency_test, the_name_is_looked_up_for_every_probe)
{
    handle(request);
    icmp.names["host.example"] = "192.0.2.10";
    answer(1, 1000);
    EXPECT_EQ(icmp.targets, (std::vector<std::string>{"192.0.2.9:0", "192.0.2.10:0"}));
}

TEST_F(latency_test, the_destination_is_cut_and_its_percent_signs_do_nothing)
{
    handle("{\"msgType\": 112, \"destination\": \"" + std::string(200, 'x') + "\"}");
    EXPECT_EQ(gLatencyDest, std::string(127, 'x'));
    run_seconds(2);
    handle("{\"msgType\": 112, \"destination\": \"a%s%n%d%%b\"}");
    EXPECT_STREQ(gLatencyDest, "a0%b");
    EXPECT_TRUE(was_logged("Test latency with destination: a%s%n%d%%b  tries 0"));
}

/* ---- requests ---- */

TEST_F(latency_test, without_a_destination_nothing_happens)
{
    for (const char *text :
         {"{\"msgType\": 112}", "{\"msgType\": 112, \"tries\": 3}", "{\"msgType\": 112, \"destination\": 5}",
          "{\"msgType\": 112, \"destination\": null}",
          "{\"msgType\": 112, \"destination\": [\"host.example\"]}"}) {
        EXPECT_EQ(handle(text), 0) << text;
        EXPECT_EQ(txq, nullptr) << text;
        EXPECT_EQ(icmp.sockets, 0) << text;
        EXPECT_EQ(ev_count_timers(), 0) << text;
    }
    EXPECT_EQ(handle(request), 0) << "and the next test may begin";
    EXPECT_EQ(icmp.sockets, 1);
}

TEST_F(latency_test, a_second_request_is_refused_until_a_second_after_the_result)
{
    handle(request);
    EXPECT_EQ(handle(request), 1);
    EXPECT_EQ(take_one_queued(), refusal);
    for (int n : {1, 2, 3})
        answer(n, 1000);
    EXPECT_EQ(take_one_queued(), result_of(1));
    EXPECT_EQ(handle(request), 1);
    EXPECT_EQ(take_one_queued(), refusal);
    int64_t over = fake_clock_now();
    EXPECT_TRUE(run_until([] { return ev_count_timers() == 0; }, 3));
    EXPECT_GE(fake_clock_now() - over, 1000000);
    EXPECT_EQ(handle(request), 0);
    EXPECT_EQ(icmp.sockets, 2);
    EXPECT_EQ(handle("{\"msgType\": 112}"), 1) << "the destination is not looked at before";
}

TEST_F(latency_test, an_absent_request)
{
    char text[ERROR_STRING_SIZE] = "";
    EXPECT_EQ(parse_and_test_latency(nullptr, text), 7);
    EXPECT_STREQ(text, "jobj is NULL");
}

TEST_F(latency_test, tries_are_numbers_or_nothing)
{
    handle("{\"msgType\": 112, \"destination\": \"host.example\", \"tries\": 99999999999}");
    EXPECT_TRUE(was_logged("Test latency with destination: host.example  tries 2147483647"));
    EXPECT_TRUE(was_logged("handle_orv_msg: MSG_LATENCY_TEST received"));
}

/* ---- packets and socket ---- */

TEST_F(latency_test, each_probe_is_an_echo_request_with_its_number)
{
    handle(request);
    answer(1, 1000);
    answer(2, 1000);
    ASSERT_EQ(icmp.packets.size(), 3u);
    for (int n : {1, 2, 3}) {
        auto wanted = build_echo_request(OURS, static_cast<uint16_t>(n));
        EXPECT_EQ(icmp.packets[static_cast<size_t>(n) - 1], std::string(wanted.begin(), wanted.end())) << n;
    }
}

TEST_F(latency_test, the_socket_is_set_up)
{
    handle(request);
    int ttl = 0;
    ASSERT_EQ(icmp.options[IP_TTL].size(), sizeof(ttl));
    memcpy(&ttl, icmp.options[IP_TTL].data(), sizeof(ttl));
    EXPECT_EQ(ttl, 255);
    struct timeval limit = {};
    ASSERT_EQ(icmp.options[SO_RCVTIMEO].size(), sizeof(limit));
    memcpy(&limit, icmp.options[SO_RCVTIMEO].data(), sizeof(limit));
    EXPECT_EQ(limit.tv_sec, 1);
    EXPECT_EQ(icmp.protocol, 1);
    for (int fd = 0; fd < EV_FD_LIMIT; fd++)
        if (ev_watched(fd)) {
            EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
            EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
        }
}

/* ---- arithmetic ---- */

struct time_row {
    int64_t sent_sec, sent_nsec, rcvd_sec, rcvd_nsec;
    uint32_t nanoseconds;
};

TEST_F(latency_test, round_trips)
{
    static const time_row rows[] = {
        {5, 0, 5, 0, 0},
        {5, 1, 5, 10000001, 10000000},
        {5, 999999999, 6, 0, 1},
        {5, 900000000, 6, 100000000, 200000000},
        {5, 100000000, 6, 100000000, 1000000000}, /* the same nanoseconds: none to take off */
        {5, 100000000, 6, 200000000, 1100000000},
        {5, 0, 6, 999999999, 1999999999},
        {5, 0, 9, 294967295, 4294967295}, /* the largest that fits */
        {5, 0, 9, 294967296, 0},          /* 32 bits */
        {5, 0, 10, 0, 705032704},
        {5, 500, 5, 100, 400}, /* a clock that goes back: how far, not which way */
    };
    for (const time_row &row : rows) {
        latency_record record = {row.sent_sec, row.sent_nsec, row.rcvd_sec, row.rcvd_nsec, 0};
        EXPECT_EQ(latency_nanoseconds(record), row.nanoseconds) << row.rcvd_sec << "." << row.rcvd_nsec;
    }
}

TEST_F(latency_test, a_reply_across_a_second)
{
    fake_clock_set(1000, 995000);
    handle(request);
    answer(1, 12500);
    EXPECT_TRUE(was_logged("Latency high sec_delta=1 nsec_delta=987500000"));
    EXPECT_TRUE(
        was_logged("Got echo reply! seq=1 lat_msec=12 bytes=64 Sent @ 1000 sec 995000000 nsec, Rcvd @ "
                   "1001 sec 7500000 nsec"));
    EXPECT_FALSE(was_logged_beginning("seq=1 latency nsec"));
}

TEST_F(latency_test, the_average_of_records)
{
    for (latency_record &record : lat_info)
        record = {1, 0, 0, 0, 4294};
    lat_info[0] = {1, 0, 1, 0, 4000000}; /* is never filled, and never counted */
    EXPECT_EQ(build_and_send_latency_data(), 0);
    EXPECT_EQ(take_one_queued(), result_of(-1));
    for (latency_record &record : lat_info)
        record.rcvd_sec = 1;
    EXPECT_EQ(build_and_send_latency_data(), 0);
    EXPECT_EQ(take_one_queued(), result_of(4294));
    da.state = DA_STATE_IDLE;
    EXPECT_EQ(build_and_send_latency_data(), -1);
}

/* ---- levels ---- */

struct level_row {
    const char *beginning;
    int level;
};

TEST_F(latency_test, lines_have_their_levels)
{
    static const level_row rows[] = {
        {"Test latency with destination", 3},
        {"Sending Latency Test Msg# 1", 2},
        {"seq=1 latency nsec=", 2},
        {"Got echo reply! seq=1", 3},
        {"Not our message s=9 seq=2", 2},
        {"latency timer already running", 0},
        {"No latency response for seq 3", 0},
        {"Latency Test Complete", 2},
        {"Total responses=1", 3},
        {"build_and_send_latency_data: JSON", 3},
    };
    for (int level : {0, 1, 2, 3}) {
        clear_log();
        da.debug_level = level;
        handle(request);
        answer(1, 1000);
        answer(9, 1000);
        EXPECT_EQ(icmp.packets.size(), 3u);
        EXPECT_TRUE(run_until([] { return txq != nullptr; }, 5));
        purge_txq();
        for (const level_row &row : rows)
            EXPECT_EQ(was_logged_beginning(row.beginning), row.level <= level)
                << row.beginning << " at level " << level;
        latency_reset();
        icmp.packets.clear();
    }
}
