#include "discovery/onboarding-request.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "agent/build-constants.h"
#include "agent/da.h"
#include "agent/text.h"
#include "platform/state-files.h"
#include "tests/unit/support.h"

#define MAC "02:4F:56:00:00:01"

class onboarding_request_test : public testing::Test {
protected:
    void SetUp() override
    {
        fresh_agent();
        onboarding_request_reset();
        for (const char *path : {VELMORA_ID_FILE, DEVICE_ID_COOKIE_FILE})
            unlink(path);
        write_file("/etc/velmora/board.json", "{\"sku\": 6}");
        copy_text(da.dev_info.eth_mac_addr, MAC);
        copy_text(da.dev_info.sw_version, "4.2.1");
        copy_text(da.orv_url, ORVANTA_CLOUD_HOST);
    }
};

/* The request, or "(none)". */
static std::string request_for(const std::string &host, int32_t port)
{
    static char request[ORV_REQUEST_SIZE];
    const char *built = build_http_get_request(host.c_str(), port, request);
    EXPECT_TRUE(!built || built == request);
    return built ? built : "(none)";
}

TEST_F(onboarding_request_test, everything_known)
{
    copy_text(da.dev_info.serial_number, "SN-77");
    write_file(VELMORA_ID_FILE, "abc:def\n");
    write_file(DEVICE_ID_COOKIE_FILE, "id-1");
    EXPECT_EQ("GET /orv-onboarding/device?mac=" MAC
              "&type=Quill&serialNo=SN-77&velmoraId=abc:def HTTP/1.1\r\n"
              "cookie:deviceId=id-1\r\n"
              "HOST:cloud.orvanta.example:443\r\n"
              "User-Agent:ovDA/1.0 (Quill/4.2.1; DA/2.78)\r\n\n",
              request_for("cloud.orvanta.example", 443));
    EXPECT_STREQ("id-1", da.deviceId);
    EXPECT_TRUE(was_logged("dev_type [Quill] sw_vers [4.2.1] user_agent [ovDA/1.0 (Quill/4.2.1; DA/2.78)]"));
    EXPECT_TRUE(was_logged("build_http_get_request: orv_url [" ORVANTA_CLOUD_HOST "]"));
}

TEST_F(onboarding_request_test, on_premises_nothing_but_the_mac_is_needed)
{
    copy_text(da.orv_url, "https://10.0.0.5:8443");
    EXPECT_EQ("GET /orv-onboarding/device?mac=" MAC "&type=Quill HTTP/1.1\r\n"
              "HOST:10.0.0.5:8443\r\n"
              "User-Agent:ovDA/1.0 (Quill/4.2.1; DA/2.78)\r\n\n",
              request_for("10.0.0.5", 8443));
    EXPECT_STREQ("", da.deviceId);
    EXPECT_TRUE(was_logged("build_http_get_request: Serial Number not available"));
    EXPECT_TRUE(was_logged("build_http_get_request: No velmora_id available"));
}

TEST_F(onboarding_request_test, the_cloud_is_not_asked_without_credentials)
{
    EXPECT_EQ("(none)", request_for(ORVANTA_CLOUD_HOST, 443));
}

/* Each of the credentials alone is enough. */
TEST_F(onboarding_request_test, one_credential)
{
    write_file(VELMORA_ID_FILE, "abc");
    EXPECT_NE(std::string::npos, request_for(ORVANTA_CLOUD_HOST, 443).find("&velmoraId=abc: HTTP/1.1\r\n"));
    unlink(VELMORA_ID_FILE);
    EXPECT_EQ("(none)", request_for(ORVANTA_CLOUD_HOST, 443)) << "the token of the earlier request is gone";

    write_file(DEVICE_ID_COOKIE_FILE, "id-1\n");
    EXPECT_NE(std::string::npos, request_for(ORVANTA_CLOUD_HOST, 443).find("\r\ncookie:deviceId=id-1\r\n"));
    unlink(DEVICE_ID_COOKIE_FILE);
    EXPECT_EQ("(none)", request_for(ORVANTA_CLOUD_HOST, 443));

    copy_text(da.dev_info.serial_number, "SN-77");
    EXPECT_NE(std::string::npos, request_for(ORVANTA_CLOUD_HOST, 443).find("&serialNo=SN-77 HTTP/1.1\r\n"));
}

TEST_F(onboarding_request_test, a_serial_number_once_sent_keeps_counting)
{
    copy_text(da.dev_info.serial_number, "SN-77");
    request_for(ORVANTA_CLOUD_HOST, 443);
    da.dev_info.serial_number[0] = '\0';
    EXPECT_EQ(0u, request_for(ORVANTA_CLOUD_HOST, 443)
                      .find("GET /orv-onboarding/device?mac=" MAC "&type=Quill HTTP/1.1\r\nHOST:"));
    onboarding_request_reset();
    EXPECT_EQ("(none)", request_for(ORVANTA_CLOUD_HOST, 443));
}

TEST_F(onboarding_request_test, empty_files_count_as_absent)
{
    write_file(VELMORA_ID_FILE, "\n");
    write_file(DEVICE_ID_COOKIE_FILE, "\n");
    EXPECT_EQ("(none)", request_for(ORVANTA_CLOUD_HOST, 443));
}

TEST_F(onboarding_request_test, cookies_are_read_up_to_127_characters)
{
    write_file(DEVICE_ID_COOKIE_FILE, std::string(200, 'c'));
    EXPECT_NE(std::string::npos,
              request_for("h", 1).find("\r\ncookie:deviceId=" + std::string(127, 'c') + "\r\nHOST:h:1\r\n"));
}

TEST_F(onboarding_request_test, pieces_are_cut_at_512_characters)
{
    copy_text(da.orv_url, "https://elsewhere");
    std::string request = request_for(std::string(600, 'h'), 443);
    size_t headers = request.find(" HTTP/1.1");
    ASSERT_NE(std::string::npos, headers);
    EXPECT_EQ(512u, request.size() - headers);
    EXPECT_EQ('h', request.back());
}
