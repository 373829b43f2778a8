#include "agent/ws-close.h"

#include <cstring>
#include <ctime>
#include <string>

#include <unistd.h>

#include "tests/unit/connection-test.h"

class close_test : public connection_test {
protected:
    void SetUp() override
    {
        connection_test::SetUp();
        connect_agent(false);
        da.register_sent = 1; /* no registration in between */
        cancel_registration();
        clear_log();
    }
};

static int send_close(const char *reason) { return send_close_frame_to_orvanta(reason, strlen(reason)); }

static std::string saved_reason(void)
{
    char reason[REASON_SIZE] = "";
    get_reason(LAST_CLOSE_REASON_FILE, reason);
    return reason;
}

/* ---- the frame ---- */

TEST_F(close_test, the_frame_holds_status_1000_and_the_reason)
{
    EXPECT_EQ(send_close("DEV_REG_TIMEOUT"), 0);
    ASSERT_EQ(library.wire.size(), 1u) << "it is on the wire when the call returns";
    EXPECT_EQ(library.wire[0].mode, FAKE_CLOSE_FRAME);
    EXPECT_EQ(library.wire[0].payload, std::string("\x03\xE8") + "DEV_REG_TIMEOUT");
    EXPECT_TRUE(was_logged("send_close_frame_to_orvanta: Sent CLOSE frame n=17"));
    EXPECT_TRUE(was_logged("send_close_frame_to_orvanta: da.state=3, writing close reason"));
}

TEST_F(close_test, the_length_decides_how_much_of_the_reason_is_sent)
{
    EXPECT_EQ(send_close_frame_to_orvanta("DEV_REBOOT and more", 10), 0);
    EXPECT_EQ(close_reason_on_wire(), "DEV_REBOOT");
    EXPECT_EQ(saved_reason(), "DEV_REBOOT");
}

TEST_F(close_test, a_reason_that_no_control_frame_holds_is_cut)
{
    std::string reason(200, 'r');
    EXPECT_EQ(send_close(reason.c_str()), 0);
    EXPECT_EQ(close_reason_on_wire(), std::string(123, 'r'));
    EXPECT_TRUE(was_logged("send_close_frame_to_orvanta: Sent CLOSE frame n=125"));
}

TEST_F(close_test, an_empty_reason_is_a_status_alone)
{
    EXPECT_EQ(send_close(""), 0);
    EXPECT_EQ(library.wire[0].payload, "\x03\xE8");
}

TEST_F(close_test, nothing_is_sent_behind_it)
{
    write_to_orv("before", 6, 0);
    send_close("DEV_CFG_UPDATE");
    write_to_orv("behind", 6, 0);
    EXPECT_EQ(in_writable, 0);
    run_seconds(20);
    EXPECT_EQ(library.wire.size(), 1u);
    EXPECT_EQ(close_reason_on_wire(), "DEV_CFG_UPDATE");
}

TEST_F(close_test, a_second_one_is_not_written)
{
    EXPECT_EQ(send_close("FIRST"), 0);
    EXPECT_EQ(send_close("SECOND"), -1);
    EXPECT_TRUE(was_logged("send_close_frame_to_orvanta: Failed to send CLOSE frame: Write failed -1"));
    EXPECT_EQ(close_reason_on_wire(), "FIRST");
}

TEST_F(close_test, before_established_it_fails_and_the_handle_is_dropped)
{
    in_library([] { fake_closed(fake_handle()); });
    begin_connecting();
    library.kills = 0;
    clear_log();
    EXPECT_EQ(send_close("DEV_CFG_UPDATE"), -1);
    EXPECT_TRUE(was_logged("send_close_frame_to_orvanta: Failed to send CLOSE frame: Write failed -1"));
    EXPECT_EQ(library.kills, 1);
    EXPECT_EQ(ws.wsi, nullptr);
    EXPECT_EQ(library.wire.size(), 0u);
    EXPECT_FALSE(path_exists(LAST_CLOSE_REASON_FILE));
}

TEST_F(close_test, without_a_handle_there_is_nothing_to_close)
{
    in_library([] { fake_closed(fake_handle()); });
    EXPECT_EQ(send_close("DEV_CFG_UPDATE"), -1);
    EXPECT_TRUE(was_logged("send_close_frame_to_orvanta: wsi is NULL, cannot send close frame"));
    EXPECT_FALSE(path_exists(LAST_CLOSE_REASON_FILE));
}

TEST_F(close_test, in_writable_is_cleared)
{
    in_writable = 1;
    send_close("DEV_CFG_UPDATE");
    EXPECT_EQ(in_writable, 0);
}

/* ---- the reason on flash ---- */

TEST_F(close_test, the_reason_is_saved_while_connected)
{
    time_t before = time(nullptr);
    send_close("DEV_PING_TIMEOUT");
    std::string text = file_text(LAST_CLOSE_REASON_FILE);
    size_t colon = text.find(':');
    ASSERT_NE(colon, std::string::npos);
    EXPECT_EQ(text.substr(colon), ":DEV_PING_TIMEOUT");
    EXPECT_GE(std::stoll(text), before);
    EXPECT_LE(std::stoll(text), time(nullptr));
}

TEST_F(close_test, the_reason_is_saved_although_the_frame_failed)
{
    send_close("FIRST");
    send_close("SECOND");
    EXPECT_EQ(saved_reason(), "SECOND");
}

TEST_F(close_test, the_reason_is_not_saved_in_another_state)
{
    for (int32_t state : {DA_STATE_IDLE, DA_STATE_DISCOVERY, DA_STATE_CONNECTING, DA_STATE_DISCONNECTED}) {
        da.state = state;
        send_close("DEV_CFG_UPDATE");
        EXPECT_FALSE(path_exists(LAST_CLOSE_REASON_FILE)) << state;
    }
}

/* ---- the closure ---- */

TEST_F(close_test, the_librarys_closure_ends_it)
{
    send_close("DEV_REG_TIMEOUT");
    expect_closure();
    clear_log();
    in_library([] { fake_closed(fake_handle()); });
    EXPECT_EQ(ws.destroy_pending, 0);
    EXPECT_EQ(da.state, DA_STATE_IDLE);
    stay_idle = 1;
    timer_disarm(discovery_timer);
    run_seconds(100);
    EXPECT_FALSE(was_logged("Websocket not closed destroying"));
    EXPECT_EQ(library.contexts_destroyed, 0);
}

TEST_F(close_test, a_closure_that_is_reported_while_the_frame_is_written_is_acted_upon)
{
    library.script.push_back([] { fake_closed(fake_handle()); }); /* inside the call's own service */
    send_close("DEV_REG_TIMEOUT");
    expect_closure();
    int took = seconds_until([] { return da.state == DA_STATE_IDLE; });
    EXPECT_GE(took, 0);
    EXPECT_LE(took, 3);
}

TEST_F(close_test, an_unreported_closure_is_forced_after_30_and_5_seconds)
{
    send_close("DEV_REG_TIMEOUT");
    write_to_orv("lost", 4, 0);
    expect_closure();
    library.swallows_closures = true;
    int took = seconds_until([] { return library.contexts_destroyed == 1; });
    EXPECT_GE(took, 30);
    EXPECT_LE(took, 34);
    EXPECT_TRUE(was_logged("Websocket not closed destroying"));
    EXPECT_TRUE(was_logged("Cancelling ping timer"));
    EXPECT_EQ(ws.context, nullptr);
    EXPECT_EQ(ws.wsi, nullptr);
    EXPECT_EQ(da.state, DA_STATE_CONNECTED);
    took = seconds_until([] { return da.state == DA_STATE_IDLE; });
    EXPECT_GE(took, 5);
    EXPECT_LE(took, 8);
    EXPECT_TRUE(was_logged("da_disconnect: LWS did not notify websocket closure, cleaning up"));
    EXPECT_EQ(ws.destroy_pending, 0);
    EXPECT_EQ(txq, nullptr);

    connect_agent(false);
    EXPECT_EQ(library.contexts_made, 2) << "the next connection makes a new context";
}

TEST_F(close_test, what_the_dying_context_reports_is_ignored)
{
    send_close("DEV_REG_TIMEOUT");
    expect_closure();
    EXPECT_NE(seconds_until([] { return library.contexts_destroyed == 1; }), -1);
    EXPECT_FALSE(was_logged("callback_websocket: LWS_CALLBACK_CLOSED"));
    EXPECT_EQ(da.state, DA_STATE_CONNECTED) << "DA DISCONNECT follows";
}

TEST_F(close_test, the_forced_steps_do_nothing_once_the_closure_was_reported)
{
    ws.destroy_pending = 0;
    ws_destroy_cb(nullptr);
    EXPECT_EQ(library.contexts_destroyed, 0);
    da_disconnect(nullptr);
    EXPECT_EQ(da.state, DA_STATE_CONNECTED);
    EXPECT_EQ(logged().size(), 0u);
}

/* ---- close_websocket ---- */

TEST_F(close_test, close_websocket_sends_dev_reboot_at_the_next_writable_callback)
{
    idle_timeout = 59;
    close_websocket();
    EXPECT_TRUE(was_logged("close_websocket: Slowing down reconnect"));
    EXPECT_EQ(idle_timeout, 60);
    EXPECT_EQ(ws.close_pending, 1);
    EXPECT_EQ(library.wire.size(), 0u);
    EXPECT_EQ(ev_watched(ws.websock_fd), static_cast<uint32_t>(EV_READ | EV_WRITE));
    ev_main();
    EXPECT_EQ(library.wire.size(), 1u);
    EXPECT_EQ(library.wire[0].payload, std::string("\x03\xE8") + "DEV_REBOOT");
    EXPECT_EQ(library.drops, 1) << "the library sends it when the callback returns -1";
    EXPECT_EQ(library.kills, 0);
    EXPECT_EQ(ws.close_pending, 0);
    EXPECT_EQ(saved_reason(), "DEV_REBOOT");
}

TEST_F(close_test, close_websocket_goes_before_what_is_queued)
{
    write_to_orv("queued", 6, 0);
    close_websocket();
    run_seconds(10);
    EXPECT_EQ(library.wire.size(), 1u);
    EXPECT_EQ(close_reason_on_wire(), "DEV_REBOOT");
}

TEST_F(close_test, close_websocket_leaves_a_longer_idle_time_out)
{
    for (int32_t seconds : {60, 300}) {
        idle_timeout = seconds;
        close_websocket();
        EXPECT_EQ(idle_timeout, seconds);
    }
    EXPECT_FALSE(was_logged("close_websocket: Slowing down reconnect"));
}

TEST_F(close_test, close_websocket_does_nothing_while_not_connected)
{
    for (int32_t state : {DA_STATE_IDLE, DA_STATE_DISCOVERY, DA_STATE_CONNECTING, DA_STATE_DISCONNECTED}) {
        da.state = state;
        idle_timeout = 5;
        int requests = library.writable_requests;
        close_websocket();
        EXPECT_EQ(ws.close_pending, 0) << state;
        EXPECT_EQ(idle_timeout, 5) << state;
        EXPECT_EQ(library.writable_requests, requests) << state;
    }
    EXPECT_EQ(logged().size(), 0u);
}

TEST_F(close_test, a_closing_connection_does_not_spin_the_loop)
{
    send_close("DEV_CFG_UPDATE");
    timer_disarm(ping_timer);
    timer_disarm(pmac_timer);
    ev_main();
    fake_waits.clear();
    run_seconds(20);
    EXPECT_LE(fake_waits.size(), 30u);
    EXPECT_GE(fake_waits.size(), 5u) << "the library is served while it waits for the peer's answer";
}
