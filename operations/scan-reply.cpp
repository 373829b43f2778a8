#include "operations/scan-reply.h"

#include <cstring>

/* Offsets in the reply. */
enum {
    REPLY_TYPE = 0,
    FAILURE_TEXT = 10,
    NEIGHBOUR_COUNT = 10,
    CHANNEL_COUNT = 11,
};

/* Offsets in an entry, sizes of its texts. */
enum {
    CHANNEL_INTERFERENCE = 4,
    CHANNEL_NOISE = 8,
    CHANNEL_NUM_APS = 12,
    NEIGHBOUR_SSID = 6,
    SSID_SIZE = 32,
    NEIGHBOUR_ENCRYPTION = 38,
    ENCRYPTION_SIZE = 34,
    NEIGHBOUR_CHANNEL = 72,
    NEIGHBOUR_SIGNAL = 76,
};

/* A number in native order, wherever it lies. */
template <typename number> static number read_number(const char *at)
{
    number value;
    memcpy(&value, at, sizeof(value));
    return value;
}

static std::string read_text(const char *at, size_t size) { return {at, strnlen(at, size)}; }

static size_t count_at(const char *bytes, size_t offset)
{
    return read_number<unsigned char>(bytes + offset);
}

/* The size that the header announces; the header is there. */
static size_t counted_size(const char *bytes)
{
    return SCAN_HEADER_SIZE + count_at(bytes, CHANNEL_COUNT) * SCAN_CHANNEL_SIZE +
           count_at(bytes, NEIGHBOUR_COUNT) * SCAN_NEIGHBOUR_SIZE;
}

bool scan_reply_complete(const char *bytes, size_t length)
{
    if (length < sizeof(uint32_t))
        return false;
    switch (read_number<uint32_t>(bytes + REPLY_TYPE)) {
    case SCAN_RESULT: return length >= SCAN_HEADER_SIZE && length >= counted_size(bytes);
    case SCAN_FAILED:
        return length >= SCAN_REPLY_LIMIT ||
               (length > FAILURE_TEXT && memchr(bytes + FAILURE_TEXT, '\0', length - FAILURE_TEXT));
    default: return true;
    }
}

static scan_channel read_channel(const char *at)
{
    return {read_number<int32_t>(at), read_number<int32_t>(at + CHANNEL_INTERFERENCE),
            read_number<int32_t>(at + CHANNEL_NOISE), read_number<int32_t>(at + CHANNEL_NUM_APS)};
}

static scan_neighbour read_neighbour(const char *at)
{
    scan_neighbour neighbour = {};
    memcpy(neighbour.bssid, at, sizeof(neighbour.bssid));
    neighbour.ssid = read_text(at + NEIGHBOUR_SSID, SSID_SIZE);
    neighbour.encryption = read_text(at + NEIGHBOUR_ENCRYPTION, ENCRYPTION_SIZE);
    neighbour.channel = read_number<int32_t>(at + NEIGHBOUR_CHANNEL);
    neighbour.signal = read_number<int32_t>(at + NEIGHBOUR_SIGNAL);
    return neighbour;
}

static int read_result(const char *bytes, size_t length, scan_reply *reply)
{
    if (length < SCAN_HEADER_SIZE || length < counted_size(bytes))
        return -1;
    const char *at = bytes + SCAN_HEADER_SIZE;
    for (size_t left = count_at(bytes, CHANNEL_COUNT); left > 0; left--, at += SCAN_CHANNEL_SIZE)
        reply->channels.push_back(read_channel(at));
    for (size_t left = count_at(bytes, NEIGHBOUR_COUNT); left > 0; left--, at += SCAN_NEIGHBOUR_SIZE)
        reply->neighbours.push_back(read_neighbour(at));
    return 0;
}

int parse_scan_reply(const char *bytes, size_t length, scan_reply *reply)
{
    *reply = {};
    if (length < sizeof(uint32_t))
        return -1;
    reply->type = read_number<uint32_t>(bytes + REPLY_TYPE);
    if (reply->type == SCAN_RESULT)
        return read_result(bytes, length, reply);
    if (reply->type == SCAN_FAILED && length > FAILURE_TEXT)
        reply->failure = read_text(bytes + FAILURE_TEXT, length - FAILURE_TEXT);
    return 0;
}
