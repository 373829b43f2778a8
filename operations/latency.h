/*
 * The latency test (message 112): three ICMP echo requests, one after the other, to a host that the
 * controller names; the average of their round trips goes back (412).
 *
 * It runs in the loop. A probe ends with its reply, with its time-out of a second, with a read error, or with
 * any other ICMP packet that this device gets meanwhile: a raw socket sees them all, and each uses up the
 * probe. The name is looked up for every probe; that alone blocks, for as long as RESOLVER_OPTIONS
 * (agent/utils.h) allow: 6 s for each name server. A name that is unknown ends the test with -1.
 */
#pragma once

#include <cstdint>

#include <jansson.h>

enum {
    LATENCY_PROBES = 3,
    LATENCY_DEST_SIZE = 128,  /* the destination's text with its NUL */
    LATENCY_PROBE_LIMIT = 1,  /* seconds that a reply may take, by the loop's clock */
    LATENCY_REFUSAL_TIME = 1, /* seconds after the result in which another test is refused */
};

/* One probe, in monotonic time. */
struct latency_record {
    int64_t sent_sec, sent_nsec;
    int64_t rcvd_sec, rcvd_nsec; /* rcvd_sec is 0 as long as it is not answered */
    uint32_t lat_msec;
};

extern latency_record lat_info[LATENCY_PROBES + 1]; /* by the number of the probe; record 0 is never filled */
extern char gLatencyDest[LATENCY_DEST_SIZE];

/*
 * Starts a test of the request's "destination"; its "tries" are only logged. Returns 0 when it has begun, and
 * when there is no destination: then nothing happens. 1 while another one runs and for a second after it, 7
 * without a request, each with the error text set.
 *
 * Where the system refuses the raw socket, every later request is refused as if the test went on.
 */
int parse_and_test_latency(const json_t *obj, char *error_text);

/*
 * Sends what the records hold: {"msgType": 412, "avgLatency": ..}, whole milliseconds, -1 when no probe was
 * answered. Returns the result of write_to_orv or -1.
 */
int build_and_send_latency_data(void);

/* The round trip of an answered probe in nanoseconds. Unsigned and 32 bits wide: right up to 4.29 s. */
uint32_t latency_nanoseconds(const latency_record &record);

/* Ends a test without a word and forgets that the socket was ever refused, for tests. */
void latency_reset(void);
