#include "operations/echo-packet.h"

/* Offsets in the ICMP header. */
enum {
    ICMP_TYPE = 0,
    ICMP_CHECKSUM = 2,
    ICMP_IDENTIFIER = 4,
    ICMP_SEQUENCE = 6,
    ICMP_HEADER_SIZE = 8,
};

enum { ECHO_REQUEST = 8 };

static void put_number(unsigned char *at, uint16_t number)
{
    at[0] = static_cast<unsigned char>(number >> 8);
    at[1] = static_cast<unsigned char>(number & 0xFF);
}

static int32_t get_number(const unsigned char *at) { return at[0] << 8 | at[1]; }

uint16_t internet_checksum(const unsigned char *bytes, size_t length)
{
    uint32_t sum = 0;
    for (size_t i = 0; i < length; i++)
        sum += i % 2 == 0 ? static_cast<uint32_t>(bytes[i]) << 8 : bytes[i];
    while (sum >> 16)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint16_t>(~sum & 0xFFFF);
}

std::array<unsigned char, ECHO_REQUEST_SIZE> build_echo_request(uint16_t identifier, uint16_t sequence)
{
    std::array<unsigned char, ECHO_REQUEST_SIZE> packet = {};
    packet[ICMP_TYPE] = ECHO_REQUEST;
    put_number(&packet[ICMP_IDENTIFIER], identifier);
    put_number(&packet[ICMP_SEQUENCE], sequence);
    /* The last byte of the data stays 0. */
    for (unsigned int i = 0; i < ECHO_REQUEST_SIZE - ICMP_HEADER_SIZE - 1; i++)
        packet[ICMP_HEADER_SIZE + i] = static_cast<unsigned char>('0' + i);
    put_number(&packet[ICMP_CHECKSUM], internet_checksum(packet.data(), packet.size()));
    return packet;
}

int read_echo_numbers(const unsigned char *packet, size_t length, echo_numbers *numbers)
{
    *numbers = {-1, -1};
    size_t ip_header = length > 0 ? (packet[0] & 0x0Fu) * 4u : 0;
    if (length < ip_header + ICMP_HEADER_SIZE)
        return -1;
    const unsigned char *icmp = packet + ip_header;
    *numbers = {get_number(icmp + ICMP_IDENTIFIER), get_number(icmp + ICMP_SEQUENCE)};
    return 0;
}
