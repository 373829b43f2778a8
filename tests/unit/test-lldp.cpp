#include "platform/lldp.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "agent/build-constants.h"

using bytes = std::vector<uint8_t>;

static bytes operator+(bytes a, const bytes &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

static const bytes header = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x0E, 2, 0, 0, 0, 0, 9, 0x88, 0xCC};
static const bytes chassis = {0x02, 0x07, 0x04, 0xAA, 0xBB, 0xCC, 0x01, 0x02, 0x03};
static const bytes marker = bytes{0xFE, 0x05} + bytes{VELMORA_OUI_BYTES} + bytes{0xAB, 0x01};
static const bytes end = {0x00, 0x00};

/* ---- building ---- */

static bytes built(const char *interface, const std::string &host, const std::string &product)
{
    lldp_identity identity = {
        {2, 0, 0, 0, 0, 9}, {0xAA, 0xBB, 0xCC, 1, 2, 3}, interface, host.c_str(), product.c_str()};
    uint8_t frame[LLDP_FRAME_SIZE];
    memset(frame, 0x55, sizeof(frame));
    size_t length = lldp_build(identity, frame);
    EXPECT_LE(length, sizeof(frame));
    return bytes(frame, frame + length);
}

static bytes text(const std::string &characters) { return bytes(characters.begin(), characters.end()); }

TEST(lldp_build, every_byte_is_in_its_place)
{
    bytes expected = header + chassis + bytes{0x04, 0x05, 0x06} + text("eth0") + /* port id */
                     bytes{0x06, 0x02, 0x00, 0xB4} +                             /* time to live */
                     bytes{0x0A, 0x05} + text("quill") +                         /* system name */
                     bytes{0x0C, 0x09} + text("Strata SA") +                     /* system description */
                     bytes{0x0E, 0x04, 0x00, 0x1C, 0x00, 0x1C} +                 /* capabilities */
                     marker + end;
    EXPECT_EQ(built("eth0", "quill", "Strata SA"), expected);
}

TEST(lldp_build, empty_texts_have_empty_entries)
{
    bytes frame = built("eth1", "", "");
    bytes names = {0x06, 0x02, 0x00, 0xB4, 0x0A, 0x00, 0x0C, 0x00, 0x0E, 0x04};
    EXPECT_NE(std::search(frame.begin(), frame.end(), names.begin(), names.end()), frame.end());
}

TEST(lldp_build, lengths_are_taken_modulo_256_and_stay_true)
{
    for (size_t length : {127u, 255u, 256u, 257u, 511u}) {
        SCOPED_TRACE(length);
        bytes frame = built("eth0", std::string(length, 'q'), std::string(length, 'p'));
        lldp_answer answer;
        ASSERT_EQ(lldp_parse(frame.data(), frame.size(), &answer), 0);
        EXPECT_TRUE(answer.marked) << "a reader finds the marker behind the texts";
        EXPECT_EQ(static_cast<size_t>(std::count(frame.begin(), frame.end(), 'q')), length % 256);
    }
}

TEST(lldp_build, our_frame_reads_as_marked_with_the_devices_mac)
{
    bytes frame = built("eth0", "quill", "Strata SA");
    lldp_answer answer;
    ASSERT_EQ(lldp_parse(frame.data(), frame.size(), &answer), 0);
    EXPECT_TRUE(answer.marked);
    EXPECT_EQ(bytes(answer.chassis, answer.chassis + 6), (bytes{0xAA, 0xBB, 0xCC, 1, 2, 3}));
}

/* ---- reading ---- */

struct row {
    const char *name;
    bytes frame;
    int result;
    bool marked;
    bytes mac;
};

static const bytes no_mac(6, 0);
static const bytes the_mac = {0xAA, 0xBB, 0xCC, 0x01, 0x02, 0x03};

static const row rows[] = {
    {"a marked answer", header + chassis + marker + end, 0, true, the_mac},
    {"the marker first", header + marker + chassis + end, 0, true, the_mac},
    {"no end entry", header + chassis + marker, 0, true, the_mac},
    {"an ordinary switch", header + chassis + bytes{0x04, 0x02, 0x05, 'p'} + bytes{0x06, 0x02, 0, 120} + end,
     0, false, the_mac},
    {"a marker without a chassis", header + marker + end, 0, true, no_mac},
    {"padding behind the end", header + chassis + marker + end + bytes(30, 0), 0, true, the_mac},
    {"two chassis, the later counts", header + bytes{0x02, 0x07, 0x04, 1, 1, 1, 1, 1, 1} + chassis + marker,
     0, true, the_mac},
    {"another marker value",
     header + chassis + bytes{0xFE, 0x05} + bytes{VELMORA_OUI_BYTES} + bytes{0xAB, 0x77}, 0, true, the_mac},

    {"chassis of another subtype", header + bytes{0x02, 0x07, 0x05, 1, 2, 3, 4, 5, 6} + marker, 0, true,
     no_mac},
    {"chassis of another length", header + bytes{0x02, 0x06, 0x04, 1, 2, 3, 4, 5} + marker, 0, true, no_mac},
    {"longer chassis", header + bytes{0x02, 0x08, 0x04, 1, 2, 3, 4, 5, 6, 7} + marker, 0, true, no_mac},
    {"marker of another maker", header + chassis + bytes{0xFE, 0x05, 0x00, 0x80, 0xC2, 0xAB, 0x01}, 0, false,
     the_mac},
    {"marker of another subtype",
     header + chassis + bytes{0xFE, 0x05} + bytes{VELMORA_OUI_BYTES} + bytes{0xAC, 0x01}, 0, false, the_mac},
    {"marker of length 4", header + chassis + bytes{0xFE, 0x04} + bytes{VELMORA_OUI_BYTES} + bytes{0xAB}, 0,
     false, the_mac},
    {"marker of length 6",
     header + chassis + bytes{0xFE, 0x06} + bytes{VELMORA_OUI_BYTES} + bytes{0xAB, 1, 1}, 0, false, the_mac},
    {"the ninth length bit is ignored",
     header + chassis + bytes{0xFF, 0x05} + bytes{VELMORA_OUI_BYTES} + bytes{0xAB, 1}, 0, true, the_mac},

    {"chassis one byte short", header + bytes(chassis.begin(), chassis.end() - 1), 0, false, no_mac},
    {"marker one byte short", header + chassis + bytes(marker.begin(), marker.end() - 1), 0, false, the_mac},
    {"a header of one byte", header + chassis + bytes{0xFE}, 0, false, the_mac},
    {"a length far beyond the end hides the rest", header + bytes{0x08, 0xFF} + chassis + marker, 0, false,
     no_mac},
    {"a length of 255 in an empty rest", header + bytes{0x02, 0xFF}, 0, false, no_mac},
    {"nothing but the header", header, 0, false, no_mac},
    {"all entries empty", header + bytes(600, 0), 0, false, no_mac},
    {"a chassis entry of length 0", header + bytes{0x02, 0x00} + marker, 0, true, no_mac},
    {"an organisation entry of length 0", header + bytes{0xFE, 0x00}, 0, false, no_mac},

    {"empty", {}, -1, false, no_mac},
    {"one byte", {0x01}, -1, false, no_mac},
    {"a destination alone", bytes(header.begin(), header.begin() + 6), -1, false, no_mac},
    {"half an EtherType", bytes(header.begin(), header.begin() + 13), -1, false, no_mac},
    {"another destination",
     bytes{0x01, 0x80, 0xC2, 0, 0, 0x03, 2, 0, 0, 0, 0, 9, 0x88, 0xCC} + chassis + marker, -1, false, no_mac},
    {"another EtherType",
     bytes{0x01, 0x80, 0xC2, 0, 0, 0x0E, 2, 0, 0, 0, 0, 9, 0x08, 0x00} + chassis + marker, -1, false, no_mac},
    {"the EtherType reversed",
     bytes{0x01, 0x80, 0xC2, 0, 0, 0x0E, 2, 0, 0, 0, 0, 9, 0xCC, 0x88} + chassis + marker, -1, false, no_mac},
};

TEST(lldp_parse, frames)
{
    for (const row &row : rows) {
        SCOPED_TRACE(row.name);
        /* An exact copy on the heap: the sanitizer sees a step beyond its end. */
        std::unique_ptr<uint8_t[]> copy(new uint8_t[row.frame.size()]);
        std::copy(row.frame.begin(), row.frame.end(), copy.get());
        lldp_answer answer;
        memset(&answer, 1, sizeof(answer)); /* left over from an earlier frame */
        EXPECT_EQ(lldp_parse(copy.get(), row.frame.size(), &answer), row.result);
        EXPECT_EQ(answer.marked, row.marked);
        EXPECT_EQ(bytes(answer.chassis, answer.chassis + 6), row.mac);
    }
}

TEST(lldp_parse, a_marked_answer_cut_anywhere_is_harmless)
{
    bytes whole = header + chassis + bytes{0x0A, 0x03, 'a', 'b', 'c'} + marker;
    for (size_t length = 0; length <= whole.size(); length++) {
        SCOPED_TRACE(length);
        std::unique_ptr<uint8_t[]> copy(new uint8_t[length]);
        std::copy_n(whole.begin(), length, copy.get());
        lldp_answer answer;
        EXPECT_EQ(lldp_parse(copy.get(), length, &answer), length < header.size() ? -1 : 0);
        EXPECT_EQ(answer.marked, length == whole.size());
    }
}

TEST(lldp_parse, every_type_and_length_is_harmless)
{
    for (unsigned int type = 0; type < 256; type++)
        for (unsigned int length : {0u, 1u, 5u, 6u, 7u, 8u, 254u, 255u}) {
            bytes frame =
                header + bytes{static_cast<uint8_t>(type), static_cast<uint8_t>(length)} + bytes(7, 0x04);
            std::unique_ptr<uint8_t[]> copy(new uint8_t[frame.size()]);
            std::copy(frame.begin(), frame.end(), copy.get());
            lldp_answer answer;
            EXPECT_EQ(lldp_parse(copy.get(), frame.size(), &answer), 0);
            EXPECT_FALSE(answer.marked);
        }
}
