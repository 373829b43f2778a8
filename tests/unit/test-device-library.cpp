#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>
#include <syslog.h>

#include "device/db-read.h"
#include "device/scmintf.h"
#include "device/tavosmac2name.h"
#include "device/tavosutils.h"
#include "tests/unit/support.h"
#include "tests/unit/syslog-end.h"

class device_library : public testing::Test {
protected:
    void SetUp() override
    {
        std::filesystem::remove(BOARD_FILE);
        std::filesystem::remove(DB_FILE);
    }
};

static std::string value_of(const char *key)
{
    char *value = db_read(key);
    std::string text = value ? value : "(none)";
    free(value);
    return text;
}

/* ---- the board ---- */

TEST_F(device_library, the_board_file_tells_who_the_device_is)
{
    write_file(BOARD_FILE, "{\"sku\": 7, \"deviceModel\": \"Strata SD 2\", \"serialNumber\": \"QL-1\", "
                           "\"otherVersion\": \"4.1.9\"}");
    char serial[SERIAL_NUMBER_SIZE];
    int length = -1;
    EXPECT_EQ(get_sku(), 7);
    EXPECT_STREQ(get_device_model(), "Strata SD 2");
    EXPECT_STREQ(get_other_version(), "4.1.9");
    EXPECT_EQ(get_serial_number(serial, &length), 0);
    EXPECT_STREQ(serial, "QL-1");
    EXPECT_EQ(length, 4);
}

TEST_F(device_library, without_a_board_file_nothing_is_known)
{
    for (const char *text :
         {"", "not JSON", "[]", "{}", "{\"sku\": \"7\", \"deviceModel\": 5, \"serialNumber\": null}"}) {
        SCOPED_TRACE(text);
        std::filesystem::remove(BOARD_FILE);
        if (text[0])
            write_file(BOARD_FILE, text);
        char serial[SERIAL_NUMBER_SIZE] = "untouched";
        int length = 77;
        EXPECT_EQ(get_sku(), 0);
        EXPECT_STREQ(get_device_model(), "");
        EXPECT_STREQ(get_other_version(), "");
        EXPECT_EQ(get_serial_number(serial, &length), -1);
        EXPECT_STREQ(serial, "untouched");
        EXPECT_EQ(length, 77);
    }
}

TEST_F(device_library, a_long_serial_number_is_cut_to_127_characters)
{
    write_file(BOARD_FILE, "{\"serialNumber\": \"" + std::string(300, 's') + "\"}");
    char serial[SERIAL_NUMBER_SIZE];
    int length = 0;
    EXPECT_EQ(get_serial_number(serial, &length), 0);
    EXPECT_EQ(std::string(serial), std::string(127, 's'));
    EXPECT_EQ(length, 127);
}

TEST_F(device_library, a_number_that_is_no_int_is_no_sku)
{
    for (const char *text : {"{\"sku\": 99999999999}", "{\"sku\": -1}", "{\"sku\": 6.0}"}) {
        write_file(BOARD_FILE, text);
        EXPECT_EQ(get_sku(), 0) << text;
    }
}

/* ---- the configuration ---- */

TEST_F(device_library, items_are_texts)
{
    write_file(DB_FILE, "{\"a\": \"one\", \"empty\": \"\", \"number\": 5, \"deep\": {\"a\": \"x\"}}");
    EXPECT_EQ(value_of("a"), "one");
    EXPECT_EQ(value_of("empty"), "");
    for (const char *key : {"number", "deep", "absent", ""})
        EXPECT_EQ(value_of(key), "(none)") << key;
}

TEST_F(device_library, the_configuration_is_read_again_only_when_it_changed)
{
    write_file(DB_FILE, "{\"a\": \"one\"}");
    EXPECT_EQ(value_of("a"), "one");
    unsigned int times = db_times_read();
    for (int i = 0; i < 10; i++)
        EXPECT_EQ(value_of("a"), "one");
    EXPECT_EQ(db_times_read(), times);
    write_file(DB_FILE, "{\"a\": \"three\"}");
    EXPECT_EQ(value_of("a"), "three");
    EXPECT_EQ(db_times_read(), times + 1);
}

TEST_F(device_library, two_changes_within_one_second_are_two)
{
    /* The same size each time; in place and by replacement. The clock of a file system ticks every few
     * milliseconds. */
    write_file(DB_FILE, "{\"a\": \"one\"}");
    EXPECT_EQ(value_of("a"), "one");
    struct stat first, second;
    ASSERT_EQ(stat(DB_FILE, &first), 0);
    do {
        write_file(DB_FILE, "{\"a\": \"two\"}");
        ASSERT_EQ(stat(DB_FILE, &second), 0);
    } while (first.st_mtim.tv_nsec == second.st_mtim.tv_nsec);
    EXPECT_EQ(value_of("a"), "two");

    write_file(DB_FILE ".new", "{\"a\": \"six\"}");
    struct timespec times[2] = {second.st_atim, second.st_mtim};
    ASSERT_EQ(utimensat(AT_FDCWD, DB_FILE ".new", times, 0), 0) << "even with the time stamp of the old one";
    std::filesystem::rename(DB_FILE ".new", DB_FILE);
    EXPECT_EQ(value_of("a"), "six");
}

TEST_F(device_library, a_configuration_that_goes_and_comes_is_followed)
{
    EXPECT_EQ(value_of("a"), "(none)");
    write_file(DB_FILE, "{\"a\": \"one\"}");
    EXPECT_EQ(value_of("a"), "one");
    std::filesystem::remove(DB_FILE);
    EXPECT_EQ(value_of("a"), "(none)");
    write_file(DB_FILE, "{\"a\": \"two\"}");
    EXPECT_EQ(value_of("a"), "two");
}

TEST_F(device_library, a_broken_configuration_has_no_items_and_is_told_once)
{
    syslog_end log;
    write_file(DB_FILE, "{\"a\": \"one\",\n");
    EXPECT_EQ(value_of("a"), "(none)");
    EXPECT_NE(log.receive().find("/mnt/flash/config/db.json:2: "), std::string::npos);
    unsigned int times = db_times_read();
    EXPECT_EQ(value_of("a"), "(none)");
    EXPECT_EQ(db_times_read(), times);
    EXPECT_EQ(log.receive(), "(nothing)");
}

/* ---- the system log ---- */

TEST_F(device_library, lines_go_to_the_system_log_under_the_daemons_name)
{
    syslog_end log;
    clog_set_daemonname("device-agent");
    clog_print(3, "%s %d", "number", 7);
    std::string line = log.receive();
    EXPECT_EQ(line.substr(0, 4), "<27>") << "daemon facility, severity 3: " << line;
    std::string expected = " device-agent[" + std::to_string(getpid()) + "]: number 7";
    EXPECT_NE(line.find(expected), std::string::npos) << line;
}

TEST_F(device_library, a_level_that_is_no_severity_counts_as_debug)
{
    syslog_end log;
    for (int level : {-1, 8, 1000}) {
        clog_print(level, "x");
        EXPECT_EQ(log.receive().substr(0, 4), "<31>") << level;
    }
}

TEST_F(device_library, the_daemons_name_is_copied)
{
    syslog_end log;
    char name[] = "first-name";
    clog_set_daemonname(name);
    strcpy(name, "gone");
    clog_print(6, "x");
    EXPECT_NE(log.receive().find(" first-name["), std::string::npos);
}

TEST_F(device_library, the_print_hook_is_empty_at_start) { EXPECT_EQ(scmintf_print, nullptr); }

/* ---- manufacturers ---- */

#define CR "\r\n"

class manufacturers : public testing::Test {
protected:
    static void registry(const char *list, const std::string &text)
    {
        write_file(std::string(REGISTRY_FOLDER) + list,
                   "OUI   Organization" CR "company_id   Organization" CR CR + text);
    }
    static std::string name(std::initializer_list<unsigned char> mac) { return mac2name(mac.begin()); }
};

/* First of all, on the lists as the distribution packages them. */
TEST_F(manufacturers, the_packaged_registry_is_understood)
{
    std::ifstream list(REGISTRY_FOLDER "oui.csv");
    std::string line;
    if (!std::getline(list, line) || !std::getline(list, line))
        GTEST_SKIP() << "the package ieee-data is not installed";
    /* MA-L,001122,Example Works,... from the other form of the same list */
    ASSERT_EQ(line.substr(0, 5), "MA-L,");
    unsigned int oui = static_cast<unsigned int>(std::stoul(line.substr(5, 6), nullptr, 16));
    std::string expected = line.substr(12, line.find(',', 12) - 12);
    EXPECT_EQ(name({static_cast<unsigned char>(oui >> 16), static_cast<unsigned char>(oui >> 8),
                    static_cast<unsigned char>(oui), 1, 2, 3}),
              expected);
    EXPECT_EQ(name({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}), "Unknown");
}

TEST_F(manufacturers, the_smallest_block_names_the_address)
{
    registry("oui.txt",
             "70-B3-D5   (hex)\t\tThe Registry" CR "70B3D5     (base 16)\t\tThe Registry" CR
             "\t\t\t\t1 Street" CR "\t\t\t\tUS" CR CR "00-11-22   (hex)\t\tWhole Block Works, Inc. " CR
             "001122     (base 16)\t\tWhole Block Works, Inc. " CR CR "F4-BD-9E   (hex)\t\tLast Line" CR
             "F4BD9E     (base 16)\t\tLast Line");
    registry("mam.txt", "70-B3-D5   (hex)\t\tMiddle" CR "900000-9FFFFF     (base 16)\t\tMiddle" CR CR);
    registry("oui36.txt", "70-B3-D5   (hex)\t\tSmall" CR "9AB000-9ABFFF     (base 16)\t\tSmall" CR CR);
    registry("iab.txt", "00-50-C2                      (hex)                         Old Block" CR
                        "7D5000-7D5FFF                 (base 16)                     Old Block   " CR CR);
    EXPECT_EQ(name({0x00, 0x11, 0x22, 0x33, 0x44, 0x55}), "Whole Block Works, Inc.");
    EXPECT_EQ(name({0x70, 0xB3, 0xD5, 0x8F, 0xFF, 0xFF}), "The Registry");
    EXPECT_EQ(name({0x70, 0xB3, 0xD5, 0x90, 0x00, 0x00}), "Middle");
    EXPECT_EQ(name({0x70, 0xB3, 0xD5, 0x9F, 0xFF, 0xFF}), "Middle");
    EXPECT_EQ(name({0x70, 0xB3, 0xD5, 0x9A, 0xB0, 0x00}), "Small");
    EXPECT_EQ(name({0x70, 0xB3, 0xD5, 0x9A, 0xBF, 0xFF}), "Small");
    EXPECT_EQ(name({0x70, 0xB3, 0xD5, 0x9A, 0xC0, 0x00}), "Middle");
    EXPECT_EQ(name({0x70, 0xB3, 0xD5, 0xA0, 0x00, 0x00}), "The Registry");
    EXPECT_EQ(name({0x00, 0x50, 0xC2, 0x7D, 0x5F, 0x01}), "Old Block");
    EXPECT_EQ(name({0xF4, 0xBD, 0x9E, 0, 0, 0}), "Last Line");
    EXPECT_EQ(name({0x00, 0x50, 0xC2, 0x00, 0x00, 0x00}), "Unknown");
    EXPECT_EQ(name({0x00, 0x11, 0x23, 0x00, 0x00, 0x00}), "Unknown");
    EXPECT_EQ(name({0, 0, 0, 0, 0, 0}), "Unknown");
}

TEST_F(manufacturers, lines_that_make_no_sense_are_passed_over)
{
    registry("oui.txt", "zz-11-22   (hex)\t\tNobody" CR "001122     (base 16)\t\tNobody" CR "(base 16)" CR
                        "00-11-33   (hex)" CR "001133     (base 16)" CR "00-11-44   (hex)\t\tFine" CR
                        "001144     (base 16)\t\tFine" CR);
    registry("mam.txt", "00-11-55   (hex)\t\tBackwards" CR "9FFFFF-900000     (base 16)\t\tBackwards" CR
                        "00-11-66   (hex)\t\tOdd" CR "000001-000005     (base 16)\t\tOdd" CR);
    registry("oui36.txt", "");
    EXPECT_EQ(name({0x00, 0x11, 0x22, 0, 0, 0}), "Unknown");
    EXPECT_EQ(name({0x00, 0x11, 0x33, 0, 0, 0}), "Unknown") << "a block without a name";
    EXPECT_EQ(name({0x00, 0x11, 0x44, 0, 0, 0}), "Fine");
    EXPECT_EQ(name({0x00, 0x11, 0x55, 0x90, 0, 0}), "Unknown");
    EXPECT_EQ(name({0x00, 0x11, 0x66, 0, 0, 1}), "Unknown");
}

TEST_F(manufacturers, a_new_registry_is_read)
{
    registry("oui.txt", "00-11-22   (hex)\t\tBefore" CR "001122     (base 16)\t\tBefore" CR);
    EXPECT_EQ(name({0x00, 0x11, 0x22, 0, 0, 0}), "Before");
    registry("oui.txt", "00-11-22   (hex)\t\tAfterwards" CR "001122     (base 16)\t\tAfterwards" CR);
    EXPECT_EQ(name({0x00, 0x11, 0x22, 0, 0, 0}), "Afterwards");
}

TEST_F(manufacturers, without_a_registry_all_are_unknown)
{
    std::filesystem::remove_all(REGISTRY_FOLDER);
    EXPECT_EQ(name({0x00, 0x11, 0x22, 0, 0, 0}), "Unknown");
}

/* ---- the device's address; last, for these leave the sandbox's network ---- */

class device_address : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        ASSERT_EQ(unshare(CLONE_NEWNET), 0);
        ip("link set lo up");
    }
    static void ip(const std::string &command) { ASSERT_EQ(system(("ip " + command).c_str()), 0) << command; }
    void TearDown() override
    {
        for (const char *name : {"eth0", "eth1", "lan0"})
            (void)!system((std::string("ip link del ") + name + " 2>/dev/null").c_str());
    }
    static std::string address(void)
    {
        char text[DEVICE_IP_SIZE];
        memset(text, '?', sizeof(text));
        int result = get_device_ip(text);
        EXPECT_EQ(result, text[0] ? 0 : -1);
        return text;
    }
};

TEST_F(device_address, loopback_is_none) { EXPECT_EQ(address(), ""); }

TEST_F(device_address, the_first_interface_that_is_up_stands_in)
{
    ip("link add eth1 type bridge");
    ip("address add 192.0.2.9/24 dev eth1");
    EXPECT_EQ(address(), "") << "it is down";
    ip("link set eth1 up");
    EXPECT_EQ(address(), "192.0.2.9");
}

TEST_F(device_address, eth0_comes_first_wherever_it_stands)
{
    ip("link add lan0 type bridge");
    ip("link set lan0 up");
    ip("address add 192.0.2.8/24 dev lan0");
    ip("link add eth0 type bridge");
    ip("link set eth0 up");
    EXPECT_EQ(address(), "192.0.2.8") << "without an address it is passed over";
    ip("address add 203.100.113.254/24 dev eth0");
    EXPECT_EQ(address(), "203.100.113.254") << "fifteen characters, the longest text there is";
}
