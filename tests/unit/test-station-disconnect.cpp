#include "platform/station-disconnect.h"

#include "tests/unit/scm-end.h"
#include "tests/unit/support.h"

class station_disconnect : public scm_test {
protected:
    void SetUp() override
    {
        scm_test::SetUp();
        fresh_agent();
    }
};

static const char start[] =
    "{\"mType\": \"ACTION-REQ\", \"sync\": false, \"cmd\": \"delete-client\", \"mac\": ";

TEST_F(station_disconnect, it_is_installed)
{
    sta_disconnect_cb = nullptr;
    install_station_disconnect();
    EXPECT_EQ(sta_disconnect_cb, platform_sta_disconnect);
}

TEST_F(station_disconnect, a_client_and_all_of_them)
{
    daemon_end daemon(ok_reply);
    EXPECT_EQ(platform_sta_disconnect("02:00:00:00:00:07"), 0);
    EXPECT_TRUE(was_logged("NOC Disconnect wlan sta [02:00:00:00:00:07]"));
    EXPECT_EQ(platform_sta_disconnect("ALL"), 0);
    EXPECT_TRUE(was_logged("NOC Disconnect wlan sta [ALL]"));
    EXPECT_EQ(platform_sta_disconnect("ALLY"), 0);
    EXPECT_EQ(platform_sta_disconnect("a\"\xFF"), 0);
    daemon.stop();
    EXPECT_EQ(daemon.messages,
              (std::vector<std::string>{start + std::string("\"02:00:00:00:00:07\"}"),
                                        start + std::string("\"*\"}"), start + std::string("\"ALLY\"}"),
                                        start + std::string("\"a\\\"\uFFFD\"}")}));
    EXPECT_EQ(logged().size(), 4u);
}

TEST_F(station_disconnect, without_a_daemon_it_fails)
{
    EXPECT_EQ(platform_sta_disconnect("ALL"), 1);
    EXPECT_TRUE(was_logged("Error initiating client-delete "));
}

TEST_F(station_disconnect, the_daemons_error_is_logged)
{
    daemon_end daemon(frame("{\"status\":\"error\",\"error\":\"no such client 5%\"}"));
    EXPECT_EQ(platform_sta_disconnect("02:00:00:00:00:07"), 1);
    EXPECT_TRUE(was_logged("Error: no such client 5%"));
}
