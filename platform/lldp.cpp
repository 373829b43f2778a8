#include "platform/lldp.h"

#include <cstring>

#include "agent/build-constants.h"

const uint8_t lldp_multicast[LLDP_MAC_SIZE] = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x0E};

static const uint8_t maker_oui[] = {VELMORA_OUI_BYTES};

/* Types of entries (TLVs) and what their values begin with. */
enum {
    TLV_END = 0,
    TLV_CHASSIS_ID = 1,
    TLV_PORT_ID = 2,
    TLV_TIME_TO_LIVE = 3,
    TLV_SYSTEM_NAME = 5,
    TLV_SYSTEM_DESCRIPTION = 6,
    TLV_SYSTEM_CAPABILITIES = 7,
    TLV_ORGANISATION = 127,

    CHASSIS_IS_MAC = 4,
    PORT_ID_SUBTYPE = 6, /* peers expect this one before the interface's name */
    MARKER_SUBTYPE = 0xAB,
    MARKER_VALUE = 0x01,
    TIME_TO_LIVE = 180, /* seconds */
};

/* ---- building ---- */

/* Writes into a frame and drops what does not fit. */
struct frame_writer {
    uint8_t *at;
    size_t left;
};

static void put_bytes(frame_writer &writer, const void *bytes, size_t length)
{
    if (length == 0 || length > writer.left)
        return;
    memcpy(writer.at, bytes, length);
    writer.at += length;
    writer.left -= length;
}

static void put_byte(frame_writer &writer, unsigned int byte)
{
    uint8_t value = static_cast<uint8_t>(byte);
    put_bytes(writer, &value, sizeof(value));
}

static void put_word(frame_writer &writer, unsigned int word)
{
    put_byte(writer, word >> 8);
    put_byte(writer, word & 0xFF);
}

/* The type stands in the upper seven bits; the ninth bit of the length is not used. */
static void put_header(frame_writer &writer, unsigned int type, size_t length)
{
    put_byte(writer, type << 1);
    put_byte(writer, static_cast<unsigned int>(length));
}

/* A text behind its subtype, cut to its length modulo 256: the length byte always tells the truth. */
static void put_text(frame_writer &writer, unsigned int type, const uint8_t *subtype, size_t subtype_size,
                     const char *text)
{
    size_t length = (subtype_size + strlen(text)) & 0xFF;
    put_header(writer, type, length);
    if (length < subtype_size)
        return;
    put_bytes(writer, subtype, subtype_size);
    put_bytes(writer, text, length - subtype_size);
}

size_t lldp_build(const lldp_identity &identity, uint8_t (&frame)[LLDP_FRAME_SIZE])
{
    static const uint8_t port_subtype = PORT_ID_SUBTYPE;
    frame_writer writer = {frame, sizeof(frame)};
    put_bytes(writer, lldp_multicast, sizeof(lldp_multicast));
    put_bytes(writer, identity.source, sizeof(identity.source));
    put_word(writer, LLDP_ETHERTYPE);

    put_header(writer, TLV_CHASSIS_ID, 1 + LLDP_MAC_SIZE);
    put_byte(writer, CHASSIS_IS_MAC);
    put_bytes(writer, identity.device, sizeof(identity.device));

    put_text(writer, TLV_PORT_ID, &port_subtype, 1, identity.interface);

    put_header(writer, TLV_TIME_TO_LIVE, 2);
    put_word(writer, TIME_TO_LIVE);

    put_text(writer, TLV_SYSTEM_NAME, nullptr, 0, identity.host_name);
    put_text(writer, TLV_SYSTEM_DESCRIPTION, nullptr, 0, identity.product_name);

    const unsigned int capabilities = 0x001C; /* bridge, access point, router; all enabled */
    put_header(writer, TLV_SYSTEM_CAPABILITIES, 4);
    put_word(writer, capabilities);
    put_word(writer, capabilities);

    put_header(writer, TLV_ORGANISATION, sizeof(maker_oui) + 2);
    put_bytes(writer, maker_oui, sizeof(maker_oui));
    put_byte(writer, MARKER_SUBTYPE);
    put_byte(writer, MARKER_VALUE);

    put_header(writer, TLV_END, 0);
    return sizeof(frame) - writer.left;
}

/* ---- reading ---- */

/* What is left of a frame. Taking more than there is fails and takes nothing. */
struct frame_cursor {
    const uint8_t *at;
    size_t left;
};

static const uint8_t *take(frame_cursor &cursor, size_t length)
{
    if (length > cursor.left)
        return nullptr;
    const uint8_t *taken = cursor.at;
    cursor.at += length;
    cursor.left -= length;
    return taken;
}

static void read_entry(unsigned int type, const uint8_t *value, size_t length, lldp_answer *answer)
{
    if (type == TLV_CHASSIS_ID && length == 1 + LLDP_MAC_SIZE && value[0] == CHASSIS_IS_MAC)
        memcpy(answer->chassis, value + 1, LLDP_MAC_SIZE);
    if (type == TLV_ORGANISATION && length == sizeof(maker_oui) + 2 &&
        memcmp(value, maker_oui, sizeof(maker_oui)) == 0 && value[sizeof(maker_oui)] == MARKER_SUBTYPE)
        answer->marked = true;
}

int lldp_parse(const uint8_t *frame, size_t length, lldp_answer *answer)
{
    *answer = {};
    frame_cursor cursor = {frame, length};
    const uint8_t *destination = take(cursor, LLDP_MAC_SIZE);
    const uint8_t *source = take(cursor, LLDP_MAC_SIZE);
    const uint8_t *ethertype = take(cursor, 2);
    if (!destination || !source || !ethertype || memcmp(destination, lldp_multicast, LLDP_MAC_SIZE) != 0 ||
        (ethertype[0] << 8 | ethertype[1]) != LLDP_ETHERTYPE)
        return -1;

    while (const uint8_t *header = take(cursor, 2)) {
        const uint8_t *value = take(cursor, header[1]);
        if (!value)
            break;
        read_entry(header[0] >> 1, value, header[1], answer);
    }
    return 0;
}
