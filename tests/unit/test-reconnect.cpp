#include "agent/state-connecting.h"

#include <string>

#include "tests/unit/connection-test.h"

using reconnect_test = connection_test;
using reconnect_death_test = connection_test;

/* ---- connecting ---- */

TEST_F(reconnect_test, connecting_waits_for_the_librarys_verdict)
{
    begin_connecting();
    EXPECT_TRUE(was_logged("da_enter_state:DA_STATE_CONNECTING"));
    EXPECT_TRUE(was_logged("call libwebsocket_create_context"));
    EXPECT_TRUE(was_logged("Device-Agent Waiting for connect... to Orvanta:[127.0.0.1] ctimer=(nil)"));
    EXPECT_NE(connect_timer.handle, nullptr);
    EXPECT_EQ(ws.reconnect_scheduled, 0);
}

TEST_F(reconnect_test, a_connect_timer_that_still_runs_is_cleaned)
{
    begin_connecting();
    char told[100];
    snprintf(told, sizeof(told),
             "Reconnect timer (ctimer %p name [LWS CONNECTING]) already running, cleaning",
             static_cast<void *>(connect_timer.handle));
    int timers = ev_count_timers();
    begin_connecting();
    EXPECT_TRUE(was_logged(told));
    EXPECT_EQ(ev_count_timers(), timers);
    EXPECT_EQ(library.kills, 1) << "there is one connection at a time";
}

TEST_F(reconnect_test, a_connect_call_that_fails_schedules_a_reconnect)
{
    library.refuses_connection = true;
    begin_connecting();
    EXPECT_TRUE(was_logged("Not able to establish connection with Orvanta"));
    EXPECT_TRUE(was_logged("wait_for_reconnect: ENTRY"));
    EXPECT_EQ(ws.reconnect_scheduled, 1);
    EXPECT_EQ(connect_timer.handle, nullptr);
    EXPECT_EQ(da.state, DA_STATE_CONNECTING);
    library.refuses_connection = false;
    int took = seconds_until([] { return library.connects.size() == 2; });
    EXPECT_GE(took, 60);
    EXPECT_LE(took, 81);
    EXPECT_EQ(ws.reconnect_scheduled, 0);
}

TEST_F(reconnect_test, one_wait_is_enough_whatever_failed)
{
    library.refuses_connection = true;
    ws.reconnect_scheduled = 1;
    begin_connecting();
    EXPECT_TRUE(was_logged("Not able to establish connection with Orvanta"));
    EXPECT_FALSE(was_logged("wait_for_reconnect: ENTRY"));

    library.refuses_connection = false;
    begin_connecting();
    EXPECT_NE(seconds_until([] { return ws.connect_attempts == 1; }), -1);
    EXPECT_FALSE(was_logged("wait_for_reconnect: ENTRY"));
}

TEST_F(reconnect_test, an_error_that_is_reported_inside_the_connect_call_schedules_one_reconnect)
{
    library.refuses_connection = true;
    library.reports_error_in_connect = true;
    library.response = 503;
    library.status_text = "503 Service Unavailable";
    begin_connecting();
    EXPECT_TRUE(was_logged("Websocket rejected by server 503 Service Unavailable"));
    EXPECT_TRUE(was_logged("callback_websocket: LWS_CALLBACK_CLIENT_CONNECTION_ERROR (ctimer=(nil))"));
    EXPECT_EQ(times_logged_beginning("wait_for_reconnect: ENTRY"), 1);
    EXPECT_EQ(ws.reconnect_attempts, 1);
}

TEST_F(reconnect_death_test, a_context_that_cannot_be_made_ends_the_process)
{
    library.refuses_context = true;
    hooks.stop_fw_dl_process = [] { fprintf(stderr, "no download\n"); };
    EXPECT_EXIT(begin_connecting(), testing::KilledBySignal(SIGABRT), "no download\n.*Assertion");
    EXPECT_TRUE(was_logged("Creating libwebsocket context failed"));
}

TEST_F(reconnect_test, without_a_verdict_the_attempt_is_given_up_after_60_seconds)
{
    begin_connecting();
    lws *given_up = ws.wsi;
    char told[100];
    snprintf(told, sizeof(told), "lws_connect_timeout_cb: context=%p", static_cast<void *>(ws.context));
    int took = seconds_until([] { return ws.connect_attempts == 1; });
    EXPECT_GE(took, 60);
    EXPECT_LE(took, 63);
    EXPECT_TRUE(was_logged("lws_connect_timeout_cb: Unable to connect websocket to Orvanta, trying again"));
    EXPECT_TRUE(was_logged(told));
    EXPECT_EQ(ws.reconnect_scheduled, 1);
    EXPECT_EQ(library.kills, 1) << "the library must not come back with it later";
    EXPECT_EQ(ws.wsi, nullptr);
    EXPECT_EQ(ws.connect_attempts, 1) << "its own error report is not the library's verdict";
    EXPECT_NE(given_up, nullptr);
    took = seconds_until([] { return library.connects.size() == 2; });
    EXPECT_GE(took, 60);
    EXPECT_LE(took, 81);
    EXPECT_EQ(connect_timer.handle != nullptr, true);
}

TEST_F(reconnect_test, a_connect_time_out_in_another_state_does_nothing)
{
    begin_connecting();
    da.state = DA_STATE_CONNECTED;
    run_seconds(70);
    EXPECT_EQ(ws.connect_attempts, 0);
    EXPECT_FALSE(was_logged("wait_for_reconnect: ENTRY"));
    EXPECT_EQ(connect_timer.handle, nullptr);
    da.state = DA_STATE_CONNECTING;
}

/* Ten time-outs in a row, then the eleventh. */
static void run_into_eleven_timeouts(void)
{
    hooks.stop_fw_dl_process = [] { fprintf(stderr, "no download\n"); };
    begin_connecting();
    run_until([] { return ws.connect_attempts == 10; }, 10000);
    fprintf(stderr, "ten time-outs\n");
    run_until([] { return ws.connect_attempts == 11; }, 10000);
}

TEST_F(reconnect_death_test, the_eleventh_connect_time_out_in_a_row_ends_the_process_with_1)
{
    EXPECT_EXIT(run_into_eleven_timeouts(), testing::ExitedWithCode(1), "ten time-outs\nno download\n");
    EXPECT_TRUE(
        was_logged("lws_connect_timeout_cb: Exhausted max websocket connect attempts(10), restarting DA"));
    EXPECT_EQ(times_logged_beginning("lws_connect_timeout_cb: Unable to connect websocket to Orvanta"), 10);
    EXPECT_EQ(times_logged_beginning("Wait for 300 seconds before falling back to discovery"), 2);
}

TEST_F(reconnect_test, any_verdict_of_the_library_clears_the_count_of_time_outs)
{
    begin_connecting();
    run_until([] { return ws.connect_attempts == 2; }, 1000);
    EXPECT_EQ(ws.connect_attempts, 2);
    EXPECT_NE(seconds_until([] { return library.connects.size() == 3; }), -1);
    in_library([] { fake_refused(fake_handle()); });
    EXPECT_EQ(ws.connect_attempts, 0);
}

/* ---- waits for reconnect ---- */

TEST_F(reconnect_test, three_waits_of_60_to_79_seconds_and_then_back_to_discovery)
{
    library.refuses_connection = true;
    begin_connecting();
    for (int attempt = 0; attempt < 3; attempt++) {
        std::string beginning =
            "max_reconnect_attempts  " + std::to_string(attempt) + ",  reconnect_timeout ";
        int wait = logged_number(beginning);
        EXPECT_GE(wait, 60);
        EXPECT_LE(wait, 79);
        EXPECT_EQ(da.state, DA_STATE_CONNECTING);
        size_t connects = library.connects.size();
        int took = seconds_until([connects] { return library.connects.size() > connects; });
        EXPECT_GE(took, wait);
        EXPECT_LE(took, wait + 2);
    }
    EXPECT_EQ(library.connects.size(), 4u);
    EXPECT_EQ(times_logged_beginning("max_reconnect_attempts  "), 3);
    EXPECT_EQ(times_logged_beginning("wait_for_reconnect: ENTRY"), 4);
    EXPECT_EQ(da.state, DA_STATE_IDLE);
    EXPECT_EQ(idle_timeout, 300);
    EXPECT_EQ(ws.reconnect_attempts, 0);
    EXPECT_TRUE(was_logged("Attempting (re)connection in 5 minutes"));
    EXPECT_TRUE(was_logged("Wait for 300 seconds before falling back to discovery"));
    EXPECT_EQ(file_text(ORV_STATE_FILE), "Connecting in 5 minutes");
    EXPECT_EQ(neighbours.discoveries, 0);

    library.refuses_connection = false;
    int took = seconds_until([] { return neighbours.discoveries == 1; });
    EXPECT_GE(took, 300);
    EXPECT_LE(took, 305);
    EXPECT_EQ(da.state, DA_STATE_CONNECTING);
    EXPECT_EQ(ws.reconnect_scheduled, 0);
}

TEST_F(reconnect_test, the_wait_for_reconnect_does_nothing_when_connected_meanwhile)
{
    wait_for_reconnect();
    da.state = DA_STATE_CONNECTED;
    ws.reconnect_scheduled = 1;
    run_seconds(100);
    EXPECT_EQ(library.connects.size(), 0u);
    EXPECT_EQ(ws.reconnect_scheduled, 1);
    EXPECT_EQ(da.state, DA_STATE_CONNECTED);
    da.state = DA_STATE_IDLE;
}

TEST_F(reconnect_test, a_connection_in_between_begins_the_count_of_waits_anew)
{
    library.refuses_connection = true;
    begin_connecting();
    run_until([] { return library.connects.size() == 3; }, 1000);
    EXPECT_EQ(ws.reconnect_attempts, 3);
    library.refuses_connection = false;
    EXPECT_NE(seconds_until([] { return library.connects.size() == 4; }), -1);
    in_library([] { fake_established(fake_handle()); });
    EXPECT_EQ(ws.reconnect_attempts, 0);
}
