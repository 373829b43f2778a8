#include "operations/latency.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "agent/da.h"
#include "agent/debug-log.h"
#include "agent/ev.h"
#include "agent/named-timer.h"
#include "agent/text.h"
#include "operations/echo-packet.h"
#include "protocol/error-codes.h"
#include "protocol/message.h"

#define MODULE "latency.c"

enum {
    ICMP_PROTOCOL = 1,
    PROBE_TTL = 255,
    READ_LIMIT = 1, /* seconds, should the socket ever wait although it is told not to */
};

latency_record lat_info[LATENCY_PROBES + 1];
char gLatencyDest[LATENCY_DEST_SIZE];

static void probe_late(void *name);
static void test_over(void *name);

static int32_t in_progress;
static int test_socket; /* 0: closed */
static int32_t seq;     /* the probe in flight; 0: none */
static named_timer probe_timer = {"LATENCY TEST", probe_late, nullptr};
static named_timer over_timer = {"LATENCY TEST COMPLETE", test_over, nullptr};

/* ---- the result ---- */

int build_and_send_latency_data(void)
{
    int responses = 0;
    long total = 0;
    for (int n = 1; n <= LATENCY_PROBES; n++) {
        if (lat_info[n].rcvd_sec == 0)
            continue;
        responses++;
        total += lat_info[n].lat_msec;
    }
    long average = responses > 0 ? total / responses : -1;
    if (responses == 0)
        LOG(LOG_TRACE, "No latency data received");
    LOG(LOG_TRACE, "Total responses=%d total_time=%ld avg_lat_msec=%ld", responses, total, average);
    json_ptr message = new_message(MSG_LATENCY_TEST_RSP);
    add_integer(message, "avgLatency", average);
    malloc_text text = dump_message(message, "build_and_send_latency_data");
    if (!text)
        return -1;
    LOG(LOG_TRACE, "%s: JSON Object: [%s]", "build_and_send_latency_data", text.get());
    return queue_text(text);
}

static void test_over(void *)
{
    timer_fired(over_timer);
    in_progress = 0;
}

static void close_socket(void)
{
    if (test_socket != 0) {
        ev_del_fd(test_socket);
        close(test_socket);
    }
    test_socket = 0;
    seq = 0;
}

/* A probe's timer that still runs finds no probe when it fires. */
static void finish(void)
{
    (void)build_and_send_latency_data();
    close_socket();
    timer_arm(over_timer, LATENCY_REFUSAL_TIME);
}

/* ---- probes ---- */

/* The first address of the destination, port 0. Returns 0, or -1 with the reason logged. */
static int look_up(struct sockaddr_in *address)
{
    const struct hostent *host = gethostbyname(gLatencyDest);
    if (!host || host->h_addrtype != AF_INET || !host->h_addr_list[0]) {
        LOG(LOG_FAILURE, "Not able to resolve %s", gLatencyDest);
        return -1;
    }
    *address = {};
    address->sin_family = AF_INET;
    memcpy(&address->sin_addr, host->h_addr_list[0], sizeof(address->sin_addr));
    return 0;
}

/* A destination without an address has no latency, whatever an earlier probe found. */
static void finish_unresolved(void)
{
    for (latency_record &record : lat_info)
        record.rcvd_sec = 0;
    LOG(LOG_EVENT, "Latency Test Complete seq=%d", seq);
    finish();
}

static void send_probe(void)
{
    struct sockaddr_in address;
    if (look_up(&address) != 0) {
        finish_unresolved();
        return;
    }
    LOG(LOG_EVENT, "Sending Latency Test Msg# %d", seq);
    auto packet = build_echo_request(static_cast<uint16_t>(gPid & 0xFFFF), static_cast<uint16_t>(seq));
    get_monotonic_time(&lat_info[seq].sent_sec, &lat_info[seq].sent_nsec);
    if (sendto(test_socket, packet.data(), packet.size(), 0,
               reinterpret_cast<const struct sockaddr *>(&address), sizeof(address)) < 1)
        perror("sendto");
    if (probe_timer.handle)
        LOG(LOG_FAILURE, "latency timer already running");
    else
        timer_arm(probe_timer, LATENCY_PROBE_LIMIT);
}

static void probe_late(void *)
{
    timer_fired(probe_timer);
    if (seq == 0)
        return;
    LOG(LOG_FAILURE, "No latency response for seq %d", seq);
    if (seq < LATENCY_PROBES) {
        seq++;
        send_probe();
    } else if (test_socket != 0) {
        LOG(LOG_EVENT, "Latency Test Complete");
        finish();
    } else {
        LOG(LOG_TRACE, "STALE Timeout Callbacks seen seq=%d", seq);
    }
}

/* ---- replies ---- */

uint32_t latency_nanoseconds(const latency_record &record)
{
    uint32_t sec_delta = static_cast<uint32_t>(record.rcvd_sec - record.sent_sec);
    bool above = record.rcvd_nsec > record.sent_nsec;
    int64_t apart = above ? record.rcvd_nsec - record.sent_nsec : record.sent_nsec - record.rcvd_nsec;
    uint32_t nsec_delta = static_cast<uint32_t>(apart);
    if (sec_delta == 0) {
        LOG(LOG_EVENT, "seq=%d latency nsec=%lu", seq, static_cast<unsigned long>(nsec_delta));
        return nsec_delta;
    }
    LOG(LOG_EVENT, "Latency high sec_delta=%lu nsec_delta=%lu", static_cast<unsigned long>(sec_delta),
        static_cast<unsigned long>(nsec_delta));
    uint32_t whole_seconds = sec_delta * 1000000000u;
    return above ? whole_seconds + nsec_delta : whole_seconds - nsec_delta;
}

static void take_reply(latency_record *record, ssize_t length)
{
    timer_disarm(probe_timer);
    record->lat_msec = latency_nanoseconds(*record) / 1000000u;
    LOG(LOG_TRACE,
        "Got echo reply! seq=%d lat_msec=%ld bytes=%d Sent @ %d sec %ld nsec, Rcvd @ %d sec %ld nsec", seq,
        static_cast<long>(record->lat_msec), static_cast<int>(length), static_cast<int>(record->sent_sec),
        static_cast<long>(record->sent_nsec), static_cast<int>(record->rcvd_sec),
        static_cast<long>(record->rcvd_nsec));
}

/* Reads one packet, the record's received time being set. One that is not the reply takes that time back. */
static void read_packet(int32_t fd, latency_record *record)
{
    unsigned char packet[ECHO_READ_SIZE];
    errno = 0;
    ssize_t length = recvfrom(fd, packet, sizeof(packet), 0, nullptr, nullptr);
    int error = errno;
    if (error != 0)
        LOG(LOG_TRACE, "seq=%d errno=%d", seq, error);
    if (length <= 0) {
        record->rcvd_sec = 0;
        LOG(LOG_FAILURE, "recvfrom returned error %d seq=%d", error, seq);
        return;
    }
    echo_numbers numbers;
    (void)read_echo_numbers(packet, static_cast<size_t>(length), &numbers);
    if (numbers.identifier != (gPid & 0xFFFF) || numbers.sequence != seq) {
        record->rcvd_sec = 0;
        LOG(LOG_EVENT, "Not our message s=%d seq=%d, ignoring", numbers.sequence, seq);
        return;
    }
    take_reply(record, length);
}

static void packet_cb(int32_t fd, int32_t, void *)
{
    if (seq < 1 || seq > LATENCY_PROBES) {
        LOG(LOG_FAILURE, "Invalid seq=%d received", seq);
        return;
    }
    latency_record *record = &lat_info[seq];
    get_monotonic_time(&record->rcvd_sec, &record->rcvd_nsec);
    read_packet(fd, record);
    if (seq >= LATENCY_PROBES) {
        LOG(LOG_EVENT, "Latency Test Complete seq=%d", seq);
        finish();
        return;
    }
    seq++;
    send_probe();
}

/* ---- the request ---- */

/* A raw ICMP socket, set up; -1 with the reason logged. */
static int open_raw_socket(void)
{
    const struct protoent *icmp = getprotobyname("icmp");
    if (!icmp)
        LOG(LOG_FAILURE, "getprotobyname() failed");
    int fd = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, icmp ? icmp->p_proto : ICMP_PROTOCOL);
    if (fd < 0) {
        int error = errno;
        perror("socket");
        LOG(LOG_FAILURE, "socket() failed errno=%d", error);
        return -1;
    }
    int ttl = PROBE_TTL;
    if (setsockopt(fd, IPPROTO_IP, IP_TTL, &ttl, sizeof(ttl)) != 0)
        perror("Set TTL option");
    if (fcntl(fd, F_SETFL, O_NONBLOCK) != 0)
        perror("Request nonblocking I/O");
    struct timeval limit = {READ_LIMIT, 0};
    (void)setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    return fd;
}

static void start_test(const char *destination)
{
    in_progress = 1;
    int fd = open_raw_socket();
    if (fd < 0)
        return;
    (void)ev_add_fd(fd, EV_READ, packet_cb, nullptr); /* unwatched, the probes go without answers */
    copy_format_text(gLatencyDest, destination);
    for (latency_record &record : lat_info)
        record.rcvd_sec = 0;
    test_socket = fd;
    seq = 1;
    send_probe();
}

int parse_and_test_latency(const json_t *obj, char *error_text)
{
    if (!obj) {
        set_error_text(error_text, "jobj is NULL");
        return INTERNAL_ERROR;
    }
    if (in_progress) {
        set_error_text(error_text, "Latency test already in progress");
        return BAD_REQUEST;
    }
    const char *destination = json_string_value(json_object_get(obj, "destination"));
    if (!destination)
        return NO_ERROR;
    int32_t tries = clamp_to_int32(json_integer_value(json_object_get(obj, "tries")));
    LOG(LOG_TRACE, "Test latency with destination: %s  tries %d", destination, tries);
    start_test(destination);
    return NO_ERROR;
}

void latency_reset(void)
{
    close_socket();
    timer_disarm(probe_timer);
    timer_disarm(over_timer);
    in_progress = 0;
}
