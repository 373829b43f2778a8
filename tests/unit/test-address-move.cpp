/* The watcher of the controller's address together with the state machine: the agent moves from every state.
 */
#include <filesystem>

#include <unistd.h>

#include "platform/address-watch.h"
#include "platform/controller-sources.h"
#include "tests/unit/connection-test.h"

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

TEST_F(address_move, connecting_it_gives_the_attempt_up)
{
    begin_connecting();
    change();
    int took = seconds_until(discovered);
    EXPECT_GE(took, 7);
    EXPECT_LE(took, 12) << "not the minute that a silent server may take";
    EXPECT_EQ(library.wire.size(), 0u);
    EXPECT_EQ(library.connects.size(), 2u) << "the second one is to the new address";
}

TEST_F(address_move, waiting_for_reconnect_it_waits_no_longer)
{
    begin_connecting();
    in_library([] { fake_refused(fake_handle()); });
    EXPECT_EQ(da.state, DA_STATE_CONNECTING) << "60 to 79 seconds to wait";
    size_t connects = library.connects.size();
    change();
    int took = seconds_until(discovered);
    EXPECT_GE(took, 7);
    EXPECT_LE(took, 12);
    EXPECT_EQ(library.connects.size(), connects + 1) << "none to the old address";
}

TEST_F(address_move, a_controller_that_does_not_close_is_left_all_the_same)
{
    connect_agent();
    cancel_registration();
    change();
    EXPECT_NE(seconds_until([] { return !close_reason_on_wire().empty(); }), -1);
    int took = seconds_until(discovered);
    EXPECT_GE(took, 40);
    EXPECT_LE(took, 48) << "30 and 5 seconds for the closure, and five";
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
