/*
 * The Wi-Fi daemon's reply to a scan: a header, then channels, then neighbours, in this device's own byte
 * order and without regard to alignment. Nothing in it is taken on trust.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/* Reply types; any other one has nothing to read. */
enum {
    SCAN_RESULT = 1,
    SCAN_FAILED = 2,
};

/* The longest reply: both counts are bytes. */
enum {
    SCAN_HEADER_SIZE = 12,
    SCAN_CHANNEL_SIZE = 16,
    SCAN_NEIGHBOUR_SIZE = 88,
    SCAN_REPLY_LIMIT = SCAN_HEADER_SIZE + 255 * (SCAN_CHANNEL_SIZE + SCAN_NEIGHBOUR_SIZE),
};

struct scan_channel {
    int32_t channel, interference, noise, num_aps;
};

struct scan_neighbour {
    unsigned char bssid[6];
    std::string ssid;       /* at most 32 bytes, of any encoding */
    std::string encryption; /* at most 34 bytes, likewise */
    int32_t channel, signal;
};

struct scan_reply {
    uint32_t type;
    std::vector<scan_channel> channels;     /* of a result, in the reply's order */
    std::vector<scan_neighbour> neighbours; /* likewise */
    std::string failure;                    /* of a failure, at most SCAN_REPLY_LIMIT bytes */
};

/*
 * Whether these bytes, the first of a stream, hold the whole reply: of a result all entries that its header
 * counts, of a failure the NUL behind its text, of anything else the type.
 */
bool scan_reply_complete(const char *bytes, size_t length);

/*
 * Reads a reply. Returns 0, or -1 when it is too short: for a type, or for the entries that it counts. A
 * failure's text may end with the bytes instead of with a NUL.
 */
int parse_scan_reply(const char *bytes, size_t length, scan_reply *reply);
