/*
 * The ICMP echo packets of the latency test: how a request is built, what is read of a reply.
 */
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

enum {
    ECHO_REQUEST_SIZE = 64, /* ICMP header of 8 bytes and 56 bytes of data */
    ECHO_READ_SIZE = 64,    /* bytes that are read of a packet, its IP header included */
};

/*
 * The Internet checksum (RFC 1071), as a number whose high byte goes first. 0 when the bytes hold
 * their own correct checksum.
 */
uint16_t internet_checksum(const unsigned char *bytes, size_t length);

/* A whole echo request. */
std::array<unsigned char, ECHO_REQUEST_SIZE> build_echo_request(uint16_t identifier, uint16_t sequence);

struct echo_numbers {
    int32_t identifier, sequence; /* 0..65535 */
};

/*
 * Reads both numbers of a received packet, which begins with its IP header. Returns 0, or -1 with both
 * numbers -1 when the ICMP header is not all there.
 */
int read_echo_numbers(const unsigned char *packet, size_t length, echo_numbers *numbers);
