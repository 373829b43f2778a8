#include "platform/state-files.h"

#include <cstring>
#include <filesystem>

#include <gtest/gtest.h>

#include "agent/da.h"
#include "device/tavosutils.h"
#include "platform/config-version.h"
#include "tests/unit/support.h"

class state_files : public testing::Test {
protected:
    void SetUp() override
    {
        fresh_agent();
        std::filesystem::remove_all("/mnt/flash/config");
        std::filesystem::create_directories("/mnt/flash/config");
        std::filesystem::remove(DHCP_43_FILE);
        std::filesystem::remove(DHCP_15_FILE);
    }
    static void no_folder(void) { std::filesystem::remove_all("/mnt/flash/config"); }

    char url[URL_TEXT_SIZE] = "";
};

/* ---- the controller's URL ---- */

TEST_F(state_files, a_static_url_is_read)
{
    write_file(STATIC_URL_FILE, "https://controller.example:8443/ws\n");
    EXPECT_EQ(platform_get_static_url(url), 0);
    EXPECT_STREQ(url, "https://controller.example:8443/ws");
    EXPECT_TRUE(was_logged("platform_get_static_url: orv_url [https://controller.example:8443/ws]"));
}

TEST_F(state_files, a_missing_or_empty_static_url_is_none)
{
    EXPECT_EQ(platform_get_static_url(url), -1);
    for (const char *text : {"", "\n"}) {
        write_file(STATIC_URL_FILE, text);
        EXPECT_EQ(platform_get_static_url(url), -1);
    }
    EXPECT_TRUE(logged().empty());
}

TEST_F(state_files, at_most_256_characters_of_a_url_are_read)
{
    write_file(STATIC_URL_FILE, std::string(400, 'u'));
    EXPECT_EQ(platform_get_static_url(url), 0);
    EXPECT_EQ(std::string(url), std::string(256, 'u'));
}

TEST_F(state_files, the_command_lines_url_wins)
{
    write_file(STATIC_URL_FILE, "from-the-file.example");
    strcpy(static_orv_url, "typed.example");
    EXPECT_EQ(platform_get_static_url(url), 0);
    EXPECT_STREQ(url, "typed.example");
    EXPECT_TRUE(was_logged("platform_get_static_url: orv_url [typed.example]"));
    no_folder();
    EXPECT_EQ(platform_get_static_url(url), 0) << "without a file too";
}

TEST_F(state_files, option_43_gives_a_url)
{
    EXPECT_EQ(platform_get_dhcp43_url(url), -1);
    write_file(DHCP_43_FILE, "\n");
    EXPECT_EQ(platform_get_dhcp43_url(url), -1);
    write_file(DHCP_43_FILE, "controller.example\n");
    EXPECT_EQ(platform_get_dhcp43_url(url), 0);
    EXPECT_STREQ(url, "controller.example");
    EXPECT_EQ(logged(),
              std::vector<std::string>{"wifi.c:platform_get_dhcp43_url: orv_url [controller.example]"});
}

TEST_F(state_files, option_15_gives_a_url_of_its_domain)
{
    write_file(DHCP_15_FILE, "example.net");
    EXPECT_EQ(platform_get_dhcp15_url(url), 0);
    EXPECT_STREQ(url, "https://orvanta.example.net");
    EXPECT_TRUE(was_logged("platform_get_dhcp15_url: Domain [example.net] Option15 based URL "
                           "[https://orvanta.example.net]"));
}

TEST_F(state_files, a_missing_or_empty_domain_is_none)
{
    strcpy(url, "before");
    EXPECT_EQ(platform_get_dhcp15_url(url), -1);
    for (const std::string &text : {std::string(""), std::string("\n"), std::string(8, '\0')}) {
        write_file(DHCP_15_FILE, text);
        EXPECT_EQ(platform_get_dhcp15_url(url), -1) << testing::PrintToString(text);
    }
    EXPECT_STREQ(url, "before");
    EXPECT_TRUE(logged().empty());
}

TEST_F(state_files, at_most_128_characters_of_a_domain_are_read)
{
    write_file(DHCP_15_FILE, std::string(300, 'd'));
    EXPECT_EQ(platform_get_dhcp15_url(url), 0);
    EXPECT_EQ(std::string(url), "https://orvanta." + std::string(128, 'd'));
}

/* ---- the cookie ---- */

TEST_F(state_files, the_cookie_is_kept_until_it_is_deleted)
{
    char cookie[128] = "";
    EXPECT_EQ(platform_get_deviceId_cookie(cookie, sizeof(cookie)), -1);
    EXPECT_EQ(platform_save_deviceId_cookie("d-1234"), 0);
    EXPECT_EQ(file_text(DEVICE_ID_COOKIE_FILE), "d-1234");
    EXPECT_EQ(platform_get_deviceId_cookie(cookie, sizeof(cookie)), 0);
    EXPECT_STREQ(cookie, "d-1234");
    EXPECT_EQ(platform_delete_device_id_cookie(), 0);
    EXPECT_FALSE(path_exists(DEVICE_ID_COOKIE_FILE));
    EXPECT_EQ(platform_get_deviceId_cookie(cookie, sizeof(cookie)), -1);
    EXPECT_EQ(platform_delete_device_id_cookie(), 0) << "always";
    EXPECT_EQ(logged(), (std::vector<std::string>{"wifi.c:platform_get_deviceId_cookie: ENTRY",
                                                  "wifi.c:platform_save_deviceId_cookie: ENTRY",
                                                  "wifi.c:platform_get_deviceId_cookie: ENTRY",
                                                  "wifi.c:platform_get_deviceId_cookie: ENTRY"}));
}

TEST_F(state_files, a_cookie_is_cut_to_the_callers_buffer)
{
    write_file(DEVICE_ID_COOKIE_FILE, std::string(200, 'c'));
    char cookie[128];
    EXPECT_EQ(platform_get_deviceId_cookie(cookie, sizeof(cookie)), 0);
    EXPECT_EQ(std::string(cookie), std::string(127, 'c'));
    char small[4];
    EXPECT_EQ(platform_get_deviceId_cookie(small, sizeof(small)), 0);
    EXPECT_STREQ(small, "ccc");
}

TEST_F(state_files, an_empty_cookie_file_counts_as_absent)
{
    write_file(DEVICE_ID_COOKIE_FILE, "\n");
    char cookie[128];
    EXPECT_EQ(platform_get_deviceId_cookie(cookie, sizeof(cookie)), -1);
}

TEST_F(state_files, a_cookie_that_cannot_be_saved_is_an_error)
{
    no_folder();
    EXPECT_EQ(platform_save_deviceId_cookie("d-1234"), -1);
}

/* ---- the account token ---- */

TEST_F(state_files, tokens)
{
    static const struct {
        const char *file, *id, *token;
    } rows[] = {
        {"abc:def", "abc", "def"},  {"abc:def\n", "abc", "def"},   {"abc", "abc", ""},
        {"abc:", "abc", ""},        {"abc:def:ghi", "abc", "def"}, {"abc::def", "abc", "def"},
        {":abc:def", "abc", "def"}, {"50%%:a%sb", "50%", "ab"}, /* tokens are format texts */
        {"a%n:%d", "a", "0"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.file);
        write_file(VELMORA_ID_FILE, row.file);
        EXPECT_EQ(platform_find_velmora_id_token(), 0);
        EXPECT_STREQ(da.dev_info.velmora_id, row.id);
        EXPECT_STREQ(da.dev_info.velmora_token, row.token);
    }
}

TEST_F(state_files, both_halves_of_the_longest_token_fit)
{
    write_file(VELMORA_ID_FILE, std::string(128, 'i') + ":" + std::string(128, 't') + "\n");
    EXPECT_EQ(platform_find_velmora_id_token(), 0);
    EXPECT_EQ(std::string(da.dev_info.velmora_id), std::string(128, 'i'));
    EXPECT_EQ(std::string(da.dev_info.velmora_token), std::string(128, 't'));
    write_file(VELMORA_ID_FILE, std::string(400, 'i'));
    EXPECT_EQ(platform_find_velmora_id_token(), 0);
    EXPECT_EQ(std::string(da.dev_info.velmora_id), std::string(128, 'i'));
    EXPECT_STREQ(da.dev_info.velmora_token, "");
}

TEST_F(state_files, what_the_token_file_no_longer_holds_is_forgotten)
{
    write_file(VELMORA_ID_FILE, "abc:def");
    EXPECT_EQ(platform_find_velmora_id_token(), 0);
    write_file(VELMORA_ID_FILE, "xyz");
    EXPECT_EQ(platform_find_velmora_id_token(), 0);
    EXPECT_STREQ(da.dev_info.velmora_token, "");
    for (const char *text : {"", "\n"}) {
        write_file(VELMORA_ID_FILE, text);
        EXPECT_EQ(platform_find_velmora_id_token(), -1);
    }
    std::filesystem::remove(VELMORA_ID_FILE);
    EXPECT_EQ(platform_find_velmora_id_token(), -1);
    EXPECT_STREQ(da.dev_info.velmora_id, "");
}

TEST_F(state_files, clearing_a_token_removes_its_file)
{
    write_file(VELMORA_ID_FILE, "abc:def");
    EXPECT_EQ(platform_find_velmora_id_token(), 0);
    EXPECT_EQ(platform_clear_velmora_id_token(), 0);
    EXPECT_STREQ(da.dev_info.velmora_id, "");
    EXPECT_STREQ(da.dev_info.velmora_token, "");
    EXPECT_FALSE(path_exists(VELMORA_ID_FILE));
    EXPECT_EQ(platform_clear_velmora_id_token(), 0);
}

/* ---- the account id ---- */

TEST_F(state_files, an_account_id_is_saved)
{
    strcpy(da.dev_info.account_id, "account-7");
    EXPECT_EQ(platform_set_account_id(), 0);
    EXPECT_EQ(file_text(ACCOUNT_ID_FILE), "account-7");
    EXPECT_EQ(logged(), (std::vector<std::string>{"wifi.c:set account_id [account-7]",
                                                  "wifi.c:Write account_id [account-7] to file"}));
}

TEST_F(state_files, an_empty_account_id_removes_the_file)
{
    write_file(ACCOUNT_ID_FILE, "account-7");
    EXPECT_EQ(platform_set_account_id(), 0);
    EXPECT_FALSE(path_exists(ACCOUNT_ID_FILE));
    EXPECT_EQ(logged(),
              (std::vector<std::string>{"wifi.c:set account_id []", "wifi.c:Clear account_id file"}));
    EXPECT_EQ(platform_set_account_id(), 0);
}

TEST_F(state_files, an_account_id_that_cannot_be_saved_is_logged)
{
    no_folder();
    strcpy(da.dev_info.account_id, "account-7");
    EXPECT_EQ(platform_set_account_id(), -1);
    EXPECT_TRUE(was_logged("Unable to open config version file for writing"));
}

/* ---- the configuration ---- */

TEST_F(state_files, the_configuration_version_is_a_number)
{
    write_file(CONFVER_FILE, "37\n");
    EXPECT_EQ(platform_get_da_config_version(), 37);
    EXPECT_TRUE(was_logged("config value : 37 \n"));
    write_file(CONFVER_FILE, "no number");
    EXPECT_EQ(platform_get_da_config_version(), 0);
    write_file(CONFVER_FILE, std::string(10000, '0') + "9");
    EXPECT_EQ(platform_get_da_config_version(), 0) << "4095 bytes are read";
}

TEST_F(state_files, a_missing_configuration_version_is_logged)
{
    EXPECT_EQ(platform_get_da_config_version(), -1);
    EXPECT_EQ(logged(), std::vector<std::string>{"wifi.c:Failed to retrieve the config value"});
}

TEST_F(state_files, the_flag_file_says_whether_the_device_was_reconfigured)
{
    EXPECT_EQ(platform_device_reconfigured(), -1);
    write_file(DEVICE_RECONFIGURED_FILE, "");
    EXPECT_EQ(platform_device_reconfigured(), 0);
}

TEST_F(state_files, ntp_is_configured_when_a_server_is_named)
{
    static const struct {
        const char *db;
        int expected;
    } rows[] = {
        {"{}", -1},
        {"{\"ntp_server\": \"\"}", -1},
        {"{\"ntp_server\": \"time.example\"}", 0},
        {"no JSON", -1},
    };
    EXPECT_EQ(platform_ntp_configured(), -1);
    for (const auto &row : rows) {
        write_file(DB_FILE, row.db);
        EXPECT_EQ(platform_ntp_configured(), row.expected) << row.db;
    }
}

TEST_F(state_files, fixed_answers)
{
    EXPECT_STREQ(platform_ca_certs_path(), "/etc/ssl/certs/");
    EXPECT_STREQ(platform_root_ca_path(), "/etc/velmora/rootCA.pem");
    EXPECT_FALSE(platform_zero_touch_enabled());
}
