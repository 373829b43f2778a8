#include "agent/registration.h"

#include <string>

#include "tests/unit/connection-test.h"

using registration_test = connection_test;

static int registers(void)
{
    int count = 0;
    for (const fake_frame &frame : library.wire)
        count += frame.payload.rfind("{\"msgType\": 100, ", 0) == 0 ? 1 : 0;
    return count;
}

static void answer(const std::string &message)
{
    in_library([message] { fake_receive(fake_handle(), message); });
}

/* ---- waiting for the parent MAC ---- */

TEST_F(registration_test, register_is_sent_at_once_when_the_parent_mac_is_known)
{
    connect_agent(true);
    EXPECT_TRUE(was_logged("da_register: Sending REGISTER request"));
    EXPECT_EQ(da.register_sent, 1);
    drain();
    EXPECT_EQ(registers(), 1);
}

TEST_F(registration_test, register_waits_for_the_parent_mac_and_looks_every_2_seconds)
{
    connect_agent(false);
    timer_disarm(pmac_timer);
    timer_disarm(ping_timer);
    EXPECT_EQ(ev_count_timers() - (serve_timer.handle ? 1 : 0), 1) << "REGISTER";
    run_seconds(20);
    EXPECT_EQ(registers(), 0);
    EXPECT_EQ(da.register_sent, 0);
    EXPECT_FALSE(was_logged("da_register: Sending REGISTER request"));
    pmac_discovery_complete = 1;
    int took = seconds_until([] { return registers() == 1; });
    EXPECT_GE(took, 0);
    EXPECT_LE(took, 5);
}

TEST_F(registration_test, the_search_for_the_parent_mac_ends_the_wait)
{
    neighbours.pmac_complete_at_search = 6;
    connect_agent(false);
    timer_disarm(ping_timer);
    int took = seconds_until([] { return registers() == 1; });
    EXPECT_GE(took, 26) << "one search after 1 s, five more every 5 s";
    EXPECT_LE(took, 45);
}

/* ---- no answer ---- */

TEST_F(registration_test, without_an_answer_the_connection_is_closed_about_62_seconds_later)
{
    connect_agent(true);
    drain();
    int took = seconds_until([] { return !close_reason_on_wire().empty(); });
    EXPECT_GE(took, 62);
    EXPECT_LE(took, 66);
    EXPECT_EQ(close_reason_on_wire(), "DEV_REG_TIMEOUT");
    EXPECT_TRUE(was_logged("No REGISTER response received, closing websocket"));
    EXPECT_TRUE(was_logged("send_close_frame_to_orvanta: Sent CLOSE frame n=17"));
    EXPECT_EQ(times_logged_beginning("da_register: Sending REGISTER request"), 2);
    EXPECT_EQ(registers(), 1) << "exactly one for each connection";
    EXPECT_EQ(ws.destroy_pending, 1);
    char reason[REASON_SIZE] = "";
    get_reason(LAST_CLOSE_REASON_FILE, reason);
    EXPECT_STREQ(reason, "DEV_REG_TIMEOUT");
}

TEST_F(registration_test, the_closed_connection_gets_no_further_register)
{
    connect_agent(true);
    run_until([] { return !close_reason_on_wire().empty(); }, 100);
    run_seconds(25);
    EXPECT_EQ(registers(), 1);
    EXPECT_EQ(times_logged_beginning("da_register: Sending REGISTER request"), 2);
    in_library([] { fake_closed(fake_handle()); });
    EXPECT_EQ(da.state, DA_STATE_IDLE);
}

TEST_F(registration_test, the_next_connection_registers_again)
{
    connect_agent(true);
    drain();
    in_library([] { fake_closed(fake_handle()); });
    EXPECT_EQ(da.register_sent, 0);
    connect_agent(true);
    drain();
    EXPECT_EQ(registers(), 2);
    run_seconds(50);
    EXPECT_EQ(close_reason_on_wire(), "") << "the lost connection's timers are gone, the count began anew";
}

/* ---- answers ---- */

TEST_F(registration_test, an_acceptance_ends_the_waiting)
{
    connect_agent(true);
    drain();
    answer("{\"msgType\": 400}");
    EXPECT_EQ(da.registered, 1);
    ASSERT_EQ(ws.pong_received, 1);
    for (int i = 0; i < 10; i++) {
        run_seconds(20);
        in_library([] { fake_report(fake_handle(), LWS_CALLBACK_CLIENT_RECEIVE_PONG); });
    }
    EXPECT_EQ(close_reason_on_wire(), "");
    EXPECT_EQ(registers(), 1);
    EXPECT_EQ(da.state, DA_STATE_CONNECTED);
}

TEST_F(registration_test, an_answer_between_the_time_out_and_the_next_attempt_is_an_answer)
{
    connect_agent(true);
    drain();
    int took = seconds_until([] { return da.register_sent == 0; });
    EXPECT_GE(took, 60);
    answer("{\"msgType\": 400}");
    EXPECT_EQ(da.registered, 1);
    run_seconds(10);
    EXPECT_EQ(registers(), 1);
    EXPECT_EQ(close_reason_on_wire(), "");
}

TEST_F(registration_test, a_refusal_is_followed_by_another_register_after_10_seconds)
{
    connect_agent(true);
    drain();
    for (int i = 2; i <= 4; i++) {
        answer("{\"msgType\": 700, \"code\": \"BadRequest\", \"message\": \"who are you\"}");
        EXPECT_EQ(da.registered, 0);
        EXPECT_EQ(da.register_sent, 0);
        int took = seconds_until([i] { return registers() == i; });
        EXPECT_GE(took, 10) << i;
        EXPECT_LE(took, 13) << i;
    }
    EXPECT_EQ(close_reason_on_wire(), "") << "each of them was answered";
    EXPECT_EQ(da.register_sent, 1);
}

TEST_F(registration_test, a_refusal_ends_an_acceptance)
{
    connect_agent(true);
    drain();
    answer("{\"msgType\": 400}");
    EXPECT_EQ(da.registered, 1);
    answer("{\"msgType\": 700}");
    EXPECT_EQ(da.registered, 0);
}

/* ---- what cannot be sent ---- */

TEST_F(registration_test, while_one_is_outstanding_none_is_sent)
{
    connect_agent(true);
    drain();
    clear_log();
    da_register();
    EXPECT_EQ(registers(), 1);
    EXPECT_EQ(logged().size(), 0u);
}

TEST_F(registration_test, a_register_that_cannot_be_queued_is_told)
{
    da.state = DA_STATE_CONNECTING;
    pmac_discovery_complete = 1;
    begin_registration();
    EXPECT_TRUE(was_logged("Not able to send Register Message"));
    EXPECT_EQ(da.register_sent, 0);
    EXPECT_EQ(ev_count_timers(), 0) << "in another state it is not tried again";
    da.state = DA_STATE_IDLE;
}

TEST_F(registration_test, in_another_state_nothing_is_polled)
{
    for (int32_t state : {DA_STATE_IDLE, DA_STATE_DISCOVERY, DA_STATE_CONNECTING, DA_STATE_DISCONNECTED}) {
        da.state = state;
        da_register();
        EXPECT_EQ(ev_count_timers(), 0) << state;
    }
    da.state = DA_STATE_IDLE;
}
