#include "agent/ws-ping.h"

#include <string>

#include "tests/unit/connection-test.h"
#include "tests/unit/fake-calloc.h"

class ping_test : public connection_test {
protected:
    void SetUp() override
    {
        connection_test::SetUp();
        connect_agent(false);
        da.register_sent = 1; /* no registration in between */
        cancel_registration();
    }
};

static int pings(void) { return frames_of_mode(5); }

/* Passes until the next ping is on the wire; the seconds it took, -1 when none comes. */
static int wait_for_ping(void)
{
    int before = pings();
    return seconds_until([before] { return pings() > before; });
}

static void pong(void)
{
    in_library([] { fake_report(fake_handle(), LWS_CALLBACK_CLIENT_RECEIVE_PONG); });
}

/* ---- the frame ---- */

TEST_F(ping_test, the_payload_is_exact)
{
    wait_for_ping();
    EXPECT_EQ(fake_wire_text(),
              "5:{\"Message\":\"ping from device agent\", \"Pid\": \"4711\", \"PongLoss\": \"0\"}");
    EXPECT_TRUE(
        was_logged("PING_DATA: len=68 msg [{\"Message\":\"ping from device agent\", \"Pid\": \"4711\", "
                   "\"PongLoss\": \"0\"}]"));
    EXPECT_TRUE(was_logged("ping call back"));
    EXPECT_TRUE(was_logged("service_ping: Ping enqueued"));
}

TEST_F(ping_test, the_pong_loss_stands_in_the_payload)
{
    ws.pong_loss = 3;
    gPid = 1;
    send_ping();
    drain();
    EXPECT_EQ(fake_wire_text(),
              "5:{\"Message\":\"ping from device agent\", \"Pid\": \"1\", \"PongLoss\": \"3\"}");
}

TEST_F(ping_test, a_ping_that_cannot_be_queued_is_told)
{
    callocs_left = 0;
    service_ping();
    callocs_left = -1;
    EXPECT_TRUE(was_logged("service_ping: Failed to send ping to Orvanta"));
    EXPECT_FALSE(was_logged("service_ping: Ping enqueued"));
}

/* ---- the cycle ---- */

TEST_F(ping_test, pings_follow_each_other_after_15_to_29_seconds)
{
    for (int i = 0; i < 20; i++) {
        int announced = logged_number(i == 0 ? "send ping after " : "send new ping after ");
        EXPECT_GE(announced, 15);
        EXPECT_LE(announced, 29);
        int took = wait_for_ping();
        EXPECT_GE(took, announced - 1) << "the pong's pass shifts the clock by less than a second";
        EXPECT_LE(took, announced + 3);
        pong();
    }
    EXPECT_EQ(ws.pong_loss, 0);
    EXPECT_EQ(da.state, DA_STATE_CONNECTED);
}

TEST_F(ping_test, the_delays_are_drawn_afresh)
{
    bool differs = false;
    wait_for_ping();
    pong();
    int first = logged_number("send new ping after ");
    for (int i = 0; i < 40 && !differs; i++) {
        wait_for_ping();
        pong();
        differs = logged_number("send new ping after ") != first;
    }
    EXPECT_TRUE(differs);
}

TEST_F(ping_test, no_ping_without_a_connection)
{
    da.state = DA_STATE_CONNECTING;
    clear_log();
    ping_timer_cb(nullptr);
    EXPECT_TRUE(was_logged("ping call back"));
    EXPECT_EQ(logged().size(), 1u);
    EXPECT_EQ(txq, nullptr);
    da.state = DA_STATE_CONNECTED;
}

TEST_F(ping_test, a_lost_connection_ends_the_cycle)
{
    in_library([] { fake_closed(fake_handle()); });
    EXPECT_TRUE(was_logged("Cancelling ping timer"));
    stay_idle = 1;
    timer_disarm(discovery_timer);
    run_seconds(200);
    EXPECT_EQ(pings(), 0);
    EXPECT_EQ(times_logged_beginning("ping call back"), 0);
}

/* ---- the pong-loss rule ---- */

TEST_F(ping_test, four_cycles_without_a_pong_and_then_one_reset_the_counter)
{
    wait_for_ping(); /* the first ping finds the flag set */
    EXPECT_EQ(ws.pong_received, 0);
    EXPECT_EQ(times_logged_beginning("Not received PONG"), 0);
    for (int missing = 1; missing <= 4; missing++) {
        wait_for_ping();
        EXPECT_EQ(ws.pong_loss, missing);
        EXPECT_TRUE(was_logged("Not received PONG for the last ping (" + std::to_string(missing) + ")"));
    }
    pong();
    wait_for_ping();
    EXPECT_EQ(ws.pong_loss, 0);
    EXPECT_EQ(close_reason_on_wire(), "");
    for (int missing = 1; missing <= 4; missing++)
        wait_for_ping();
    EXPECT_EQ(ws.pong_loss, 4) << "it begins at the beginning";
    EXPECT_EQ(close_reason_on_wire(), "");
    EXPECT_EQ(da.state, DA_STATE_CONNECTED);
}

TEST_F(ping_test, the_fifth_cycle_without_a_pong_closes_and_pings_no_more)
{
    wait_for_ping();
    int64_t first_ping = fake_clock_now();
    EXPECT_NE(seconds_until([] { return !close_reason_on_wire().empty(); }), -1);
    int64_t took = (fake_clock_now() - first_ping) / 1000000;
    EXPECT_GE(took, 75);
    EXPECT_LE(took, 155) << "five cycles of 15 to 29 s, and at most two seconds more each";
    EXPECT_EQ(close_reason_on_wire(), "DEV_PING_TIMEOUT");
    EXPECT_EQ(library.wire.back().payload, std::string("\x03\xE8", 2) + "DEV_PING_TIMEOUT");
    EXPECT_TRUE(was_logged("Not received PONG for the last ping (5)"));
    EXPECT_TRUE(was_logged("Missed 5 consecutive PONGS, disconnecting with server"));
    EXPECT_TRUE(was_logged("send_close_frame_to_orvanta: Sent CLOSE frame n=18"));
    EXPECT_EQ(ws.pong_loss, 0);
    EXPECT_EQ(ws.destroy_pending, 1);
    EXPECT_EQ(ping_timer.handle, nullptr);
    int sent = pings();
    clear_log();
    run_seconds(25);
    EXPECT_EQ(pings(), sent) << "nothing stands behind a close frame";
    EXPECT_FALSE(was_logged("ping call back"));
}

TEST_F(ping_test, each_missing_pong_is_counted_in_the_next_ping)
{
    for (int i = 0; i < 4; i++)
        wait_for_ping();
    ASSERT_EQ(library.wire.size(), 4u);
    for (int i : {0, 1})
        EXPECT_NE(library.wire[static_cast<size_t>(i)].payload.find("\"PongLoss\": \"0\""), std::string::npos)
            << i;
    EXPECT_NE(library.wire[2].payload.find("\"PongLoss\": \"1\""), std::string::npos);
    EXPECT_NE(library.wire[3].payload.find("\"PongLoss\": \"2\""), std::string::npos);
}

TEST_F(ping_test, a_new_connection_begins_with_a_clean_record)
{
    for (int i = 0; i < 4; i++)
        wait_for_ping();
    EXPECT_EQ(ws.pong_loss, 3);
    in_library([] { fake_closed(fake_handle()); });
    EXPECT_EQ(ws.pong_received, 1);
    EXPECT_EQ(ws.pong_loss, 0);
    timer_disarm(discovery_timer);
    connect_agent(false);
    wait_for_ping();
    EXPECT_NE(library.wire.back().payload.find("\"PongLoss\": \"0\""), std::string::npos);
}

TEST_F(ping_test, cancelling_a_timer_that_does_not_run_says_nothing)
{
    cancel_ping_timer();
    EXPECT_TRUE(was_logged("Cancelling ping timer"));
    clear_log();
    cancel_ping_timer();
    EXPECT_EQ(logged().size(), 0u);
}

/* ---- the parent MAC ---- */

TEST_F(ping_test, the_parent_mac_is_looked_for_after_1_second_and_every_5_seconds)
{
    int took = seconds_until([] { return neighbours.pmac_searches == 1; });
    EXPECT_GE(took, 1);
    EXPECT_LE(took, 3);
    took = seconds_until([] { return neighbours.pmac_searches == 2; });
    EXPECT_GE(took, 5);
    EXPECT_LE(took, 7);
}

TEST_F(ping_test, the_search_ends_when_it_is_complete)
{
    neighbours.pmac_complete_at_search = 3;
    run_seconds(60);
    EXPECT_EQ(neighbours.pmac_searches, 3);
    EXPECT_EQ(pmac_timer.handle, nullptr);
}

TEST_F(ping_test, a_parent_mac_that_is_known_is_not_looked_for)
{
    in_library([] { fake_closed(fake_handle()); });
    timer_disarm(discovery_timer);
    neighbours.pmac_searches = 0;
    connect_agent(true);
    EXPECT_EQ(pmac_timer.handle, nullptr);
    run_seconds(30);
    EXPECT_EQ(neighbours.pmac_searches, 0);
}
