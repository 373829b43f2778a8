#include "agent/config-change.h"

#include <cstring>
#include <string>

#include "tests/unit/connection-test.h"

static const char *const in_progress = "Another connection is in progress , please wait for reconnect";

using config_change_test = connection_test;

static void change(const char *reason = "DEV_CFG_UPDATE") { close_for_config_change(reason, strlen(reason)); }

TEST_F(config_change_test, connected_it_closes_with_the_reason)
{
    connect_agent(false);
    idle_timeout = 300;
    da.discovery_method = DISCOVER_DHCP_43;
    change("DEV_CFG_UPDATE");
    EXPECT_TRUE(was_logged("Received Close config change [ DEV_CFG_UPDATE] "));
    EXPECT_EQ(close_reason_on_wire(), "DEV_CFG_UPDATE");
    EXPECT_EQ(idle_timeout, 5);
    EXPECT_EQ(da.discovery_method, DISCOVER_STATIC_URL);
    EXPECT_EQ(da.state, DA_STATE_CONNECTED) << "the library's closure follows";
    in_library([] { fake_closed(fake_handle()); });
    EXPECT_EQ(da.state, DA_STATE_IDLE);
    EXPECT_TRUE(was_logged("Attempting (re)connection in 5 seconds"));
}

TEST_F(config_change_test, waiting_for_discovery_it_discovers_in_5_seconds)
{
    idle_timeout = 300;
    da.discovery_method = DISCOVER_DHCP_15;
    da_enter_state(DA_STATE_IDLE);
    clear_log();
    change();
    EXPECT_EQ(da.discovery_method, DISCOVER_STATIC_URL);
    EXPECT_TRUE(was_logged("Attempting (re)connection in 5 seconds"));
    EXPECT_EQ(ev_count_timers(), 2) << "the discovery delay and the countdown of the status";
    int took = seconds_until([] { return neighbours.discoveries == 1; });
    EXPECT_GE(took, 5);
    EXPECT_LE(took, 7);
    EXPECT_FALSE(was_logged("start close connect_cb"));
}

TEST_F(config_change_test, on_the_way_to_a_connection_it_waits_for_the_end)
{
    for (int32_t state : {DA_STATE_DISCOVERY, DA_STATE_CONNECTING, DA_STATE_DISCONNECTED}) {
        clear_log();
        da.state = state;
        da.discovery_method = DISCOVER_DHCP_15;
        change();
        EXPECT_TRUE(was_logged("start close connect_cb")) << state;
        EXPECT_EQ(da.discovery_method, DISCOVER_STATIC_URL);
        EXPECT_EQ(file_text(ORV_STATE_FILE), in_progress) << state;
        EXPECT_EQ(library.wire.size(), 0u);
        EXPECT_EQ(da.state, state);
        EXPECT_EQ(ev_count_timers(), 1) << state;
    }
}

TEST_F(config_change_test, the_retry_looks_every_5_seconds_and_makes_the_attempt_the_last)
{
    begin_connecting();
    change();
    int took = seconds_until([] { return ws.reconnect_attempts == 3; });
    EXPECT_GE(took, 5);
    EXPECT_LE(took, 8);
    EXPECT_TRUE(was_logged("Waiting for ongoing websocket connection to complete"));
    run_seconds(20);
    EXPECT_GE(times_logged_beginning("Waiting for ongoing websocket connection to complete"), 3);
    EXPECT_EQ(times_logged_beginning("Received Close config change"), 1);

    in_library([] { fake_refused(fake_handle()); });
    EXPECT_EQ(da.state, DA_STATE_IDLE) << "no further wait for reconnect";
    EXPECT_EQ(idle_timeout, 300);
    took = seconds_until([] { return times_logged_beginning("Received Close config change") == 2; });
    EXPECT_GE(took, 0);
    EXPECT_LE(took, 8);
    EXPECT_EQ(idle_timeout, 5);
    EXPECT_TRUE(was_logged("Attempting (re)connection in 5 seconds"));
}

TEST_F(config_change_test, a_connection_that_comes_up_meanwhile_is_closed_with_the_reason)
{
    begin_connecting();
    char reason[] = "DEV_CFG_UPDATE";
    change(reason);
    memset(reason, 'x', strlen(reason)); /* the text was copied */
    run_seconds(8);
    in_library([] { fake_established(fake_handle()); });
    EXPECT_NE(seconds_until([] { return !close_reason_on_wire().empty(); }), -1);
    EXPECT_EQ(close_reason_on_wire(), "DEV_CFG_UPDATE");
}

TEST_F(config_change_test, a_long_reason_is_cut_to_125_characters_for_the_retry)
{
    begin_connecting();
    std::string reason(300, 'r');
    change(reason.c_str());
    in_library([] { fake_established(fake_handle()); });
    clear_log();
    EXPECT_NE(seconds_until([] { return !close_reason_on_wire().empty(); }), -1);
    EXPECT_TRUE(was_logged("Received Close config change [ " + std::string(125, 'r') + "] "));
}

TEST_F(config_change_test, two_changes_make_one_retry)
{
    da.state = DA_STATE_CONNECTING;
    change("FIRST");
    change("SECOND");
    EXPECT_EQ(ev_count_timers(), 1);
    begin_connecting();
    in_library([] { fake_established(fake_handle()); });
    EXPECT_NE(seconds_until([] { return !close_reason_on_wire().empty(); }), -1);
    EXPECT_EQ(close_reason_on_wire(), "SECOND");
}

TEST_F(config_change_test, idle_without_a_discovery_delay_waits_too)
{
    stay_idle = 1;
    da_enter_state(DA_STATE_IDLE);
    change();
    EXPECT_TRUE(was_logged("start close connect_cb"));
    EXPECT_EQ(neighbours.discoveries, 0);
}
