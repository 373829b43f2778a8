/*
 * LLDP frames (IEEE 802.1AB) as the parent-MAC discovery uses them: building ours, reading a peer's. No
 * sockets.
 */
#pragma once

#include <cstddef>
#include <cstdint>

enum {
    LLDP_MAC_SIZE = 6,
    LLDP_ETHERTYPE = 0x88CC,
    LLDP_FRAME_SIZE = 1600, /* room for any frame, ours and a peer's */
};

/* The nearest-bridge multicast address, 01:80:C2:00:00:0E, where every frame goes. */
extern const uint8_t lldp_multicast[LLDP_MAC_SIZE];

struct lldp_identity {
    uint8_t source[LLDP_MAC_SIZE]; /* of the sending interface */
    uint8_t device[LLDP_MAC_SIZE]; /* chassis id */
    const char *interface;         /* port id */
    const char *host_name;
    const char *product_name;
};

/* Writes our frame with the maker's marker; returns its length. Texts are cut to their length modulo 256. */
size_t lldp_build(const lldp_identity &identity, uint8_t (&frame)[LLDP_FRAME_SIZE]);

struct lldp_answer {
    uint8_t chassis[LLDP_MAC_SIZE]; /* all zero when the frame names no chassis by its MAC */
    bool marked;                    /* the maker's marker is there */
};

/*
 * Reads a received frame, which may hold anything. Returns 0, or -1 when it is no LLDP frame. Entries that
 * run past the end are not looked at.
 */
int lldp_parse(const uint8_t *frame, size_t length, lldp_answer *answer);
