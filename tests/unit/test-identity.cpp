#include "platform/identity.h"

#include <cstring>
#include <filesystem>

#include <gtest/gtest.h>
#include <sys/mount.h>

#include "agent/da.h"
#include "agent/debug-log.h"
#include "agent/ev.h"
#include "agent/hooks.h"
#include "device/scmintf.h"
#include "device/tavosutils.h"
#include "platform/config-version.h"
#include "platform/state-files.h"
#include "tests/unit/support.h"
#include "tests/unit/syslog-end.h"

#define MAC_FILE "/sys/class/net/eth0/address"

/* Stands in for the device library's: erased storage and failures cannot be had from a board file. */
static std::string serial;
static int serial_result;

int get_serial_number(char *buffer, int *length)
{
    if (serial_result != 0)
        return serial_result;
    memcpy(buffer, serial.data(), serial.size());
    *length = static_cast<int>(serial.size());
    return 0;
}

class identity : public testing::Test {
protected:
    void SetUp() override
    {
        fresh_agent();
        std::filesystem::remove_all("/mnt/flash/config");
        std::filesystem::create_directories("/mnt/flash/config");
        serial = "QL-0042";
        serial_result = 0;
        board("{\"sku\": 6, \"deviceModel\": \"Strata SA\", \"otherVersion\": \"4.1.9\"}");
        write_file("/etc/version", "NAME=x\nVERSION=4.2.1\n");
    }
    void TearDown() override { unmount_mac(); }

    static void board(const std::string &text) { write_file(BOARD_FILE, text); }
    static void setting(const std::string &text) { write_file(DB_FILE, text); }

    /* The kernel's file cannot be written: another one is laid over it. */
    static void mac_file(const std::string &text)
    {
        unmount_mac();
        write_file("/tmp/address", text);
        ASSERT_EQ(mount("/tmp/address", MAC_FILE, nullptr, MS_BIND, nullptr), 0) << strerror(errno);
    }
    static void unmount_mac(void)
    {
        while (umount(MAC_FILE) == 0)
            continue;
    }
    static std::string type(void)
    {
        char text[IDENTITY_TEXT_SIZE];
        EXPECT_EQ(platform_get_type(text), 0);
        return text;
    }
    static std::string model(void)
    {
        char text[IDENTITY_TEXT_SIZE];
        EXPECT_EQ(platform_get_model(text), 0);
        return text;
    }
    static std::string version_of(const std::string &file)
    {
        da.dev_info.sw_version[0] = '\0';
        write_file("/etc/version", file);
        EXPECT_EQ(platform_init_dev_info(), 0);
        return da.dev_info.sw_version;
    }
};

/* ---- the Ethernet MAC ---- */

TEST_F(identity, a_mac_and_a_newline_are_17_characters)
{
    mac_file("02:4f:56:10:20:30\n");
    EXPECT_EQ(platform_init_dev_info(), 0);
    EXPECT_STREQ(da.dev_info.eth_mac_addr, "02:4f:56:10:20:30");
    EXPECT_TRUE(was_logged("Ethernet MAC [02:4f:56:10:20:30] len 17"));
    EXPECT_STREQ(get_mac(), "02:4f:56:10:20:30");
}

TEST_F(identity, the_kernels_own_file_is_read)
{
    EXPECT_EQ(platform_init_dev_info(), 0);
    EXPECT_EQ(std::string(da.dev_info.eth_mac_addr) + "\n", file_text(MAC_FILE));
}

TEST_F(identity, sixteen_characters_are_kept_but_not_valid)
{
    for (const char *text : {"02:4f:56:10:20:3", "02:4f:56:10:20:3\n"}) {
        clear_log();
        mac_file(text);
        EXPECT_EQ(platform_init_dev_info(), 0);
        EXPECT_STREQ(da.dev_info.eth_mac_addr, "02:4f:56:10:20:3");
        EXPECT_TRUE(was_logged("Invalid MAC len"));
    }
}

TEST_F(identity, without_eth0_the_mac_stays_empty_and_the_rest_goes_on)
{
    /* A folder without the file, in the place of the interface's. */
    std::filesystem::create_directories("/tmp/no-interface");
    ASSERT_EQ(mount("/tmp/no-interface", "/sys/class/net/eth0/", nullptr, MS_BIND, nullptr), 0);
    EXPECT_EQ(platform_init_dev_info(), 0);
    ASSERT_EQ(umount("/sys/class/net/eth0/"), 0);
    EXPECT_STREQ(da.dev_info.eth_mac_addr, "");
    EXPECT_TRUE(was_logged("Failed to open file /sys/class/net/eth0/address"));
    EXPECT_STREQ(da.dev_info.sw_version, "4.2.1");
}

TEST_F(identity, an_empty_mac_is_fatal_where_a_controller_is_contacted)
{
    EXPECT_DEATH(get_mac(), "Assertion `strlen\\(da.dev_info.eth_mac_addr\\)' failed");
}

/* ---- the software version ---- */

TEST_F(identity, the_version_line_gives_the_software_version)
{
    EXPECT_EQ(version_of("NAME=x\nVERSION=4.2.1\n"), "4.2.1");
    EXPECT_TRUE(was_logged("sw_version - (4.2.1)"));
}

TEST_F(identity, version_files)
{
    static const struct {
        const char *file, *expected;
    } rows[] = {
        {"VERSION=4.2.1\nVERSION=5\n", "4.2.1"},
        {"VERSION==4.2.1\n", "4.2.1"}, /* runs of "=" count as one */
        {"VERSION=4.2.1=rc\n", "4.2.1"},
        {"MYVERSION=1\nVERSION=2\n", "2"},
        {"VERSION =1\nVERSION=2\n", "2"}, /* the word exactly */
        {"version=1\n", ""},
        {"VERSION=\n4.2.1\n", "4.2.1"}, /* the line ends after the word: the next one's first token */
        {"VERSION\n4.2.1\n", "4.2.1"},
        {"VERSION\nNEXT=1\n", "NEXT"},
        {"VERSION= 4.2.1 (build 7)\n", " 4.2.1 (build 7)"},
        {"VERSION=4.2.1", ""}, /* not a terminated value */
        {"NAME=x\nVERSION=4.2.1", ""},
        {"VERSION=4.2.1\r\n", "4.2.1\r"}, /* up to the newline, not before */
        {"", ""},
        {"NAME=x\n", ""},
    };
    for (const auto &row : rows)
        EXPECT_EQ(version_of(row.file), row.expected) << testing::PrintToString(std::string(row.file));
}

TEST_F(identity, a_long_version_is_cut_to_its_field)
{
    EXPECT_EQ(version_of("VERSION=" + std::string(200, 'v') + "\n"), std::string(127, 'v'));
    EXPECT_EQ(version_of("NAME=" + std::string(1000, 'n') + "\nVERSION=4\n"), "4")
        << "after a line of any length";
    EXPECT_EQ(version_of("VERSION=" + std::string(1000, 'v') + "\n"), "")
        << "its first 255 characters have no end";
}

TEST_F(identity, without_a_version_file_it_stays_empty)
{
    std::filesystem::remove("/etc/version");
    EXPECT_EQ(platform_init_dev_info(), 0);
    EXPECT_STREQ(da.dev_info.sw_version, "");
    EXPECT_TRUE(was_logged("Failed to open file"));
}

/* ---- variants ---- */

TEST_F(identity, variants)
{
    static const struct {
        int sku;
        const char *device_model, *product_name, *model, *type, *hw_version;
    } rows[] = {
        {6, "Strata SA", "Strata SA", "SA", "Quill", "6"},
        {7, "Strata SC", "Strata SC", "SC", "Quill", "7"},
        {7, "Strata SD", "Strata SC", "SD", "Quill", "9"},
        {7, "Strata SD-EU", "Strata SC", "SD", "Quill", "9"},
        {7, "My Strata SD", "Strata SC", "SC", "Quill", "7"},
        {7, "Strata S", "Strata SC", "SC", "Quill", "7"},
        {7, "", "Strata SC", "SC", "Quill", "7"},
        {8, "Strata SD", "Strata SE", "SE", "Quill", "8"},
        {10, "x", "Strata SB", "SB", "Moss", "10"},
        {11, "x", "Strata SF", "SF", "Moss", "11"},
        {9, "Strata SD", "Vireo Lattice", "Lattice", "Heron", "9"},
        {5, "x", "Vireo Lattice", "Lattice", "Heron", "5"},
        {12, "x", "Vireo Lattice", "Lattice", "Heron", "12"},
        {0, "x", "Vireo Lattice", "Lattice", "Heron", "0"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(std::to_string(row.sku) + " " + row.device_model);
        clear_log();
        board("{\"sku\": " + std::to_string(row.sku) + ", \"deviceModel\": \"" + row.device_model + "\"}");
        EXPECT_EQ(platform_init_dev_info(), 0);
        EXPECT_STREQ(da.dev_info.product_name, row.product_name);
        EXPECT_EQ(model(), row.model);
        EXPECT_EQ(type(), row.type);
        EXPECT_STREQ(da.dev_info.hw_version, row.hw_version);
        EXPECT_TRUE(was_logged("Hardware version : [" + std::string(row.hw_version) + "]\n"));
    }
}

TEST_F(identity, the_standby_images_version_comes_from_the_library)
{
    EXPECT_EQ(platform_init_dev_info(), 0);
    EXPECT_STREQ(da.dev_info.other_sw_version, "4.1.9");
    board("{\"otherVersion\": \"" + std::string(300, 'o') + "\"}");
    EXPECT_EQ(platform_init_dev_info(), 0);
    EXPECT_EQ(da.dev_info.other_sw_version, std::string(127, 'o'));
}

/* ---- the serial number ---- */

TEST_F(identity, the_serial_number_is_kept)
{
    EXPECT_EQ(platform_init_dev_info(), 0);
    EXPECT_STREQ(da.dev_info.serial_number, "QL-0042");
    EXPECT_TRUE(was_logged("MSN [QL-0042]"));
}

TEST_F(identity, erased_storage_holds_no_serial_number)
{
    for (size_t length : {8u, 127u, 128u}) {
        SCOPED_TRACE(length);
        clear_log();
        serial = std::string(length, '\xFF');
        EXPECT_EQ(platform_init_dev_info(), 0);
        EXPECT_STREQ(da.dev_info.serial_number, "");
        EXPECT_TRUE(was_logged("MSN unavailable (" + std::to_string(length) + ")"));
    }
}

TEST_F(identity, one_byte_below_0xff_makes_a_serial_number)
{
    serial = "\xFF\xFF"
             "7";
    EXPECT_EQ(platform_init_dev_info(), 0);
    EXPECT_STREQ(da.dev_info.serial_number, "\xFF\xFF"
                                            "7");
}

TEST_F(identity, an_empty_serial_number_is_unavailable)
{
    serial = "";
    EXPECT_EQ(platform_init_dev_info(), 0);
    EXPECT_STREQ(da.dev_info.serial_number, "");
    EXPECT_TRUE(was_logged("MSN unavailable (0)"));
}

TEST_F(identity, a_serial_number_of_128_bytes_is_cut)
{
    serial = std::string(128, 's');
    EXPECT_EQ(platform_init_dev_info(), 0);
    EXPECT_EQ(da.dev_info.serial_number, std::string(127, 's'));
}

TEST_F(identity, a_failing_library_leaves_the_serial_number_empty)
{
    serial_result = -5;
    EXPECT_EQ(platform_init_dev_info(), 0);
    EXPECT_STREQ(da.dev_info.serial_number, "");
    EXPECT_TRUE(was_logged("Failed to get MSN ret=-5"));
}

/* ---- files of the configuration folder ---- */

TEST_F(identity, the_configuration_version_begins_with_1)
{
    EXPECT_EQ(platform_init_dev_info(), 0);
    EXPECT_EQ(file_text(CONFVER_FILE), "1");
    write_file(CONFVER_FILE, "37");
    EXPECT_EQ(platform_init_dev_info(), 0);
    EXPECT_EQ(file_text(CONFVER_FILE), "37");
}

TEST_F(identity, a_configuration_version_that_cannot_be_made_is_logged)
{
    std::filesystem::remove_all("/mnt/flash/config");
    EXPECT_EQ(platform_init_dev_info(), 0);
    EXPECT_TRUE(was_logged("Not able to create the config version file"));
    EXPECT_TRUE(was_logged("AccountId unavailable"));
}

TEST_F(identity, the_account_id_is_read)
{
    write_file(ACCOUNT_ID_FILE, "account-7\n");
    EXPECT_EQ(platform_init_dev_info(), 0);
    EXPECT_STREQ(da.dev_info.account_id, "account-7");
    EXPECT_FALSE(was_logged("AccountId unavailable"));
    write_file(ACCOUNT_ID_FILE, std::string(300, 'a'));
    EXPECT_EQ(platform_init_dev_info(), 0);
    EXPECT_EQ(da.dev_info.account_id, std::string(128, 'a'));
}

/* ---- libraries and sockets ---- */

TEST_F(identity, the_configuration_library_prints_to_the_system_log)
{
    scmintf_print = nullptr;
    EXPECT_EQ(platform_init_dev_info(), 0);
    ASSERT_TRUE(scmintf_print);
    syslog_end log;
    clog_set_daemonname("device-agent");
    scmintf_print("scm.c", 12, "no answer, 100%s");
    std::string line = log.receive();
    EXPECT_EQ(line.substr(0, 4), "<27>") << line;
    EXPECT_NE(line.find("]: no answer, 100%s (scm.c:12)"), std::string::npos) << line;
}

TEST_F(identity, the_system_log_knows_the_agent_by_name)
{
    syslog_end log;
    EXPECT_EQ(platform_init_dev_info(), 0);
    clog_print(6, "hello");
    EXPECT_NE(log.receive().find(" device-agent["), std::string::npos);
}

static std::string steps;

TEST_F(identity, the_last_steps_come_in_order)
{
    setting("{\"logging_syslog_sev\": \"6\"}");
    steps.clear();
    hooks.platform_fcgi_server_init = [] {
        steps += "listener " + std::to_string(ev_count_fds()) + ", front end at level " +
                 std::to_string(da.debug_level) + ", ";
        return 0;
    };
    hooks.install_station_disconnect = [] { steps += "stations at level " + std::to_string(da.debug_level); };
    EXPECT_EQ(platform_init_dev_info(), 0);
    EXPECT_EQ(steps, "listener 1, front end at level 3, stations at level 2");
    std::filesystem::remove(DB_FILE);
}

TEST_F(identity, a_front_end_socket_that_fails_stops_nothing)
{
    static bool reached;
    reached = false;
    hooks.platform_fcgi_server_init = [] { return -1; };
    hooks.install_station_disconnect = [] { reached = true; };
    EXPECT_EQ(platform_init_dev_info(), 0);
    EXPECT_TRUE(reached);
}

/* ---- single values ---- */

TEST_F(identity, the_operating_mode_is_always_the_same)
{
    char text[IDENTITY_TEXT_SIZE];
    EXPECT_EQ(platform_get_operating_mode(text), 0);
    EXPECT_STREQ(text, "wi-fi");
}

TEST_F(identity, the_parent_mac_is_copied)
{
    char text[IDENTITY_TEXT_SIZE] = "old";
    EXPECT_EQ(platform_get_parent_mac(text), 0);
    EXPECT_STREQ(text, "");
    strcpy(da.dev_info.parent_mac, "AA:BB:CC:DD:EE:FF");
    EXPECT_EQ(platform_get_parent_mac(text), 0);
    EXPECT_STREQ(text, "AA:BB:CC:DD:EE:FF");
}

/* ---- the log level ---- */

TEST_F(identity, syslog_severities_become_levels)
{
    static const struct {
        const char *value;
        int level;
    } rows[] = {
        {"1", 0},      {"2", 0}, {"3", 0}, {"4", 1},  {"5", 1}, {"6", 2},     {"7", 3},
        {"7 of 7", 3}, {"0", 3}, {"8", 3}, {"-1", 3}, {"", 3},  {"debug", 3}, {"99999999999", 3},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.value);
        setting("{\"logging_syslog_sev\": \"" + std::string(row.value) + "\"}");
        da.debug_level = 3;
        set_log_level();
        EXPECT_EQ(da.debug_level, row.level);
    }
    EXPECT_TRUE(was_logged("set_log_level: syslog severity=5"));
}

TEST_F(identity, severities_0_and_8_leave_any_level)
{
    for (int level : {0, 1, 2, 7})
        for (const char *value : {"0", "8"}) {
            setting("{\"logging_syslog_sev\": \"" + std::string(value) + "\"}");
            da.debug_level = level;
            set_log_level();
            EXPECT_EQ(da.debug_level, level) << value;
        }
}

TEST_F(identity, without_the_item_nothing_is_logged)
{
    setting("{}");
    set_log_level();
    EXPECT_EQ(da.debug_level, 3);
    EXPECT_TRUE(logged().empty());
}
