/*
 * A raw ICMP socket that is a pair of local ones, with the test at its other end, and a resolver that knows
 * what the test says. The test program wraps socket, sendto, recvfrom, setsockopt, getprotobyname and
 * gethostbyname.
 */
#pragma once

#include <map>
#include <string>
#include <vector>

struct fake_icmp {
    int refuse = 0;         /* errno with which the raw socket is refused, 0: it is not */
    int refuse_sending = 0; /* likewise for sending */
    int refuse_reading = 0; /* and for reading */
    bool knows_icmp = true; /* getprotobyname finds the protocol */
    std::map<std::string, std::string> names = {{"host.example", "192.0.2.9"}};

    int sockets = 0; /* opened so far */
    int protocol = -1;
    int lookups = 0;
    std::map<int, std::string> options; /* set on the socket, by number: the value's bytes */
    std::vector<std::string> packets;   /* sent so far */
    std::vector<std::string> targets;   /* where each went, "address:port" */
    int far_end = -1;
};

extern fake_icmp icmp;

/* Forgets everything and closes the far end. */
void fake_icmp_reset(void);

/* Lets a packet arrive, an IP header of 20 bytes before it. */
void fake_icmp_arrive(const std::string &icmp_packet);
void fake_icmp_arrive_raw(const std::string &packet);

/* An echo reply. */
std::string echo_reply(int identifier, int sequence);
