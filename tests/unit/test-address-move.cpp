/* The watcher of the controller's address together with the state machine: the agent moves from every state.
 */
#include <filesystem>

#include <unistd.h>

#include "platform/address-watch.h"
#include "platform/controller-sources.h"
#include "tests/unit/connection-test.h"

static const char *const in_progress = "Another connection is in progress , please wait for reconnect";

/* A pass asks every source and finds what the test says. */
static void ask_all(void)
{
    char url[URL_TEXT_SIZE];
    (void)platform_get_static_url(url);
    (void)platform_get_dhcp43_url(url);
    (void)platform_get_dhcp15_url(url);
}

class address_move : public connection_test {
protected:
    void SetUp() override
    {
        connection_test::SetUp();
        for (const char *path : {STATIC_URL_FILE, DHCP_43_FILE, DHCP_15_FILE})
            std::filesystem::remove_all(path);
        neighbours.during_discovery = ask_all;
        platform_watch_controller_address();
        ask_all();
    }
    void TearDown() override
    {
        address_watch_reset();
        /* A retry of the move that still waits ends where there is a discovery delay to replace. */
        stay_idle = 0;
        da.state = DA_STATE_IDLE;
        idle_timeout = 60;
        timer_arm(discovery_timer, 60);
        run_until([] { return idle_timeout == 5; }, 12);
        connection_test::TearDown();
    }
};

static bool discovered(void) { return neighbours.discoveries > 0; }

static void change(void) { write_file(STATIC_URL_FILE, "https://onprem.example\n"); }

TEST_F(address_move, connected_and_registering)
{
    for (bool registered : {false, true}) {
        SCOPED_TRACE(registered);
        neighbours.discoveries = 0;
        unlink(STATIC_URL_FILE);
        ask_all();
        connect_agent(registered);
        if (registered)
            cancel_registration();
        change();
        int took = seconds_until([] { return !close_reason_on_wire().empty(); });
        EXPECT_LE(took, 4);
        EXPECT_EQ(close_reason_on_wire(), "DEV_CFG_UPDATE");
        in_library([] { fake_closed(fake_handle()); });
        took = seconds_until(discovered);
        EXPECT_LE(took, 8);
        EXPECT_EQ(neighbours.discoveries, 1);
    }
}

TEST_F(address_move, waiting_for_minutes_to_discover)
{
    idle_timeout = 300;
    da.discovery_method = DISCOVER_DHCP_43;
    da_enter_state(DA_STATE_IDLE);
    change();
    int took = seconds_until(discovered);
    EXPECT_GE(took, 7) << "two quiet seconds and five";
    EXPECT_LE(took, 12);
    EXPECT_EQ(da.discovery_method, DISCOVER_STATIC_URL);
}

/* The pass blocks the loop and has read the old text: what changed meanwhile is seen after it. */
TEST_F(address_move, discovering)
{
    neighbours.discovery_result = -1;
    neighbours.during_discovery = [] {
        ask_all();
        if (neighbours.discoveries == 1)
            change();
        idle_timeout = 300;
    };
    idle_timeout = 5;
    da_enter_state(DA_STATE_IDLE);
    EXPECT_NE(seconds_until(discovered), -1);
    int took = seconds_until([] { return neighbours.discoveries == 2; });
    EXPECT_GE(took, 7);
    EXPECT_LE(took, 12) << "instead of the 300 seconds after a failed pass";
}

TEST_F(address_move, connecting_it_leaves_as_soon_as_it_is_connected)
{
    begin_connecting();
    change();
    EXPECT_NE(seconds_until([] { return file_text(ORV_STATE_FILE) == in_progress; }), -1);
    EXPECT_EQ(library.wire.size(), 0u);
    in_library([] { fake_established(fake_handle()); });
    int took = seconds_until([] { return close_reason_on_wire() == "DEV_CFG_UPDATE"; });
    EXPECT_GE(took, 0);
    EXPECT_LE(took, 7);
}

TEST_F(address_move, connecting_in_vain_it_does_not_wait_for_another_attempt)
{
    begin_connecting();
    change();
    EXPECT_NE(seconds_until([] { return ws.reconnect_attempts == 3; }), -1);
    in_library([] { fake_refused(fake_handle()); });
    EXPECT_EQ(da.state, DA_STATE_IDLE);
    int took = seconds_until(discovered);
    EXPECT_GE(took, 5);
    EXPECT_LE(took, 16);
}

TEST_F(address_move, waiting_for_reconnect_the_attempt_that_comes_is_the_last)
{
    begin_connecting();
    in_library([] { fake_refused(fake_handle()); });
    EXPECT_EQ(da.state, DA_STATE_CONNECTING) << "60 to 79 seconds to wait";
    size_t connects = library.connects.size();
    change();
    EXPECT_NE(seconds_until([&] { return library.connects.size() > connects; }), -1);
    EXPECT_EQ(ws.reconnect_attempts, 3);
    in_library([] { fake_refused(fake_handle()); });
    int took = seconds_until(discovered);
    EXPECT_GE(took, 5);
    EXPECT_LE(took, 16);
}

/* A DHCP client that renews: the file goes and comes back with the same text. */
TEST_F(address_move, a_lease_that_is_renewed_moves_nobody)
{
    write_file(DHCP_15_FILE, "branch.example");
    ask_all();
    connect_agent();
    cancel_registration();
    for (int renewals = 0; renewals < 5; renewals++) {
        unlink(DHCP_15_FILE);
        ev_main();
        write_file(DHCP_15_FILE, "branch.example\n");
        run_seconds(5);
    }
    EXPECT_EQ(close_reason_on_wire(), "");
    EXPECT_EQ(da.state, DA_STATE_CONNECTED);
}
