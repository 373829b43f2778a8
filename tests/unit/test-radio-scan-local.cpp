#include "operations/front-end-requests.h"

#include <string>
#include <vector>

#include "protocol/error-codes.h"
#include "tests/unit/radio-scan-test.h"

class radio_scan_local : public radio_scan {
protected:
    void SetUp() override
    {
        radio_scan::SetUp();
        ASSERT_EQ(platform_fcgi_server_init(), 0);
    }
    void TearDown() override
    {
        front_end_drop();
        radio_scan::TearDown();
    }

    struct client : local_end {
        client() : local_end(SOCK_SEQPACKET, FRONT_END_SOCKET) { ev_main(); }
        void ask(const std::string &band) const
        {
            ASSERT_TRUE(say("{\"msgType\": 111, \"band\": \"" + band + "\"}"));
            ev_main();
        }
    };
};

TEST_F(radio_scan_local, the_result_goes_to_the_front_end)
{
    client page;
    page.ask("5GHz");
    EXPECT_EQ(orv_radio_scan, 0);
    EXPECT_EQ(daemon.request(), std::string(12, '\0'));
    EXPECT_EQ(page.hear(), "(nothing)");
    EXPECT_EQ(ask("5GHz"), 1) << "the controller has to wait";
    EXPECT_EQ(take_one_queued(), failure("Radio scan already in progress, please wait"));
    EXPECT_EQ(orv_radio_scan, 0);
    reply(scan_header(1, 0, 0));
    EXPECT_EQ(page.hear(),
              "{\"msgType\": 411, \"status\": \"Complete\", \"band\": \"5GHz\", \"channelInfo\": [], "
              "\"neighborInfo\": []}");
    EXPECT_EQ(txq, nullptr);
    begin(); /* the controller's next one */
    EXPECT_EQ(orv_radio_scan, 1);
}

/* A refusal ends whatever command runs, and says so even where none does. */
#define COMMAND_ENDED R"({"msgType": 409, "status": "Complete", "output": ""})"
#define COMMAND_STOPPED R"({"msgType": 410})"

TEST_F(radio_scan_local, failures_go_to_the_front_end)
{
    client page;
    page.ask("2.4GHz");
    EXPECT_EQ(page.hear(), failure("Device does not support scanning requested band"));
    EXPECT_EQ(page.hear(), "(nothing)") << "the connection stays";
    page.ask("5GHz");
    EXPECT_EQ(daemon.request(), std::string(12, '\0'));
    reply(failure_bytes(std::string("off\0", 4)));
    EXPECT_EQ(page.hear(), failure("off"));
    page.ask("5GHz");
    EXPECT_TRUE(run_until([] { return scan_in_progress == 0; }, 130));
    EXPECT_EQ(page.hear(), failure("No scan result from the Wi-Fi daemon"));
    daemon.end();
    page.ask("5GHz");
    EXPECT_EQ(page.hear(), failure("Failed to send start scan message"));
    page.ask("5ghz");
    EXPECT_EQ(page.hear(), failure("Invalid band specified")) << "with another code than the controller's";
    EXPECT_EQ(page.hear(), COMMAND_ENDED);
    EXPECT_EQ(page.hear(), "(closed)");
    EXPECT_EQ(take_queued(), std::vector<std::string>{COMMAND_STOPPED});
}

TEST_F(radio_scan_local, a_front_end_that_has_gone)
{
    {
        client page;
        page.ask("5GHz");
        EXPECT_EQ(daemon.request(), std::string(12, '\0'));
    }
    ev_main();
    reply(scan_header(1, 0, 0));
    EXPECT_TRUE(was_logged("Failed to send as fcgi connectivity lost"));
    EXPECT_EQ(txq, nullptr);
    EXPECT_EQ(scan_in_progress, 0);
}

TEST_F(radio_scan_local, a_front_end_that_is_refused_while_the_controller_scans)
{
    begin();
    client page;
    page.ask("5GHz");
    EXPECT_EQ(page.hear(), failure("Radio scan already in progress, please wait"));
    EXPECT_EQ(page.hear(), COMMAND_ENDED);
    EXPECT_EQ(page.hear(), "(closed)");
    EXPECT_EQ(take_queued(), std::vector<std::string>{COMMAND_STOPPED});
    reply(scan_header(1, 0, 0));
    EXPECT_EQ(take_queued().size(), 1u) << "the controller's result";
}

/* The refusal closes the connection that the result would have gone to. */
TEST_F(radio_scan_local, a_second_request_turns_the_result_to_the_controller)
{
    client page;
    page.ask("5GHz");
    EXPECT_EQ(daemon.request(), std::string(12, '\0'));
    page.ask("5GHz");
    EXPECT_EQ(page.hear(), failure("Radio scan already in progress, please wait"));
    EXPECT_EQ(page.hear(), COMMAND_ENDED);
    EXPECT_EQ(page.hear(), "(closed)");
    EXPECT_EQ(take_queued(), std::vector<std::string>{COMMAND_STOPPED});
    reply(scan_header(1, 0, 0));
    EXPECT_EQ(take_one_queued().substr(0, 15), "{\"msgType\": 411");
    EXPECT_EQ(scan_in_progress, 0);
}
