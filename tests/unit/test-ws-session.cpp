#include "agent/ws-session.h"

#include <cstring>
#include <string>
#include <vector>

#include <openssl/ssl.h>

#include "agent/owners.h"
#include "agent/ws-rx.h"
#include "discovery/cert-verify.h"
#include "tests/unit/connection-test.h"

/* What was handed to the dispatcher, with what stands behind it. */
static std::vector<std::string> received;
static bool terminated;
static bool inside_library;
static std::function<void()> during_message;

static int receive(char *text, size_t length, void *user)
{
    received.emplace_back(text, length);
    terminated = text[length] == '\0';
    text[length] = '\0';
    inside_library = inside_library || ws.in_library;
    EXPECT_EQ(user, ws.context);
    if (during_message)
        during_message();
    return 0;
}

/* What the TLS context was told; the program's own definitions come before the library's. */
static int (*verify_callback)(X509_STORE_CTX *, void *);
static void *verify_argument;
static std::string verify_folder;

extern "C" void SSL_CTX_set_cert_verify_callback(SSL_CTX *, int (*callback)(X509_STORE_CTX *, void *),
                                                 void *argument)
{
    verify_callback = callback;
    verify_argument = argument;
}

extern "C" int SSL_CTX_load_verify_dir(SSL_CTX *, const char *folder)
{
    verify_folder = folder;
    return 1;
}

static int stats_cancelled;
static int restores_cancelled;

class session_test : public connection_test {
protected:
    void SetUp() override
    {
        connection_test::SetUp();
        received.clear();
        inside_library = false;
        during_message = nullptr;
        stats_cancelled = 0;
        restores_cancelled = 0;
        hooks.handle_orv_msg = receive;
        hooks.cancel_periodic_stats = [] { stats_cancelled++; };
        hooks.platform_cancel_cfg_restore = [] { restores_cancelled++; };
    }
};

using texts = std::vector<std::string>;

/* ---- context and connection ---- */

TEST_F(session_test, the_context_is_made_as_the_agent_needs_it)
{
    begin_connecting();
    EXPECT_EQ(library.contexts_made, 1);
    EXPECT_EQ(library.creation.port, CONTEXT_PORT_NO_LISTEN);
    EXPECT_EQ(library.creation.gid, static_cast<gid_t>(-1));
    EXPECT_EQ(library.creation.uid, static_cast<uid_t>(-1));
    EXPECT_STREQ(library.protocol.name, "websock_protocol");
    EXPECT_EQ(library.protocol.callback, callback_websocket);
    EXPECT_EQ(library.protocol.per_session_data_size, 4u);
    EXPECT_EQ(library.protocol.rx_buffer_size, 4096u);
    EXPECT_NE(library.creation.options & LWS_SERVER_OPTION_DO_SSL_GLOBAL_INIT, 0u);
}

TEST_F(session_test, the_librarys_own_verdicts_come_after_the_agents)
{
    begin_connecting();
    EXPECT_GT(library.creation.timeout_secs, 60u);
    EXPECT_GT(library.creation.connect_timeout_secs, 60u);
    EXPECT_GT(library.policy.secs_since_valid_ping, 145);
    EXPECT_GT(library.policy.secs_since_valid_hangup, 145);
}

TEST_F(session_test, the_connection_is_asked_for_exactly)
{
    begin_connecting();
    ASSERT_EQ(library.connects.size(), 1u);
    const fake_connect &connect = library.connects[0];
    EXPECT_EQ(connect.address, "127.0.0.1");
    EXPECT_EQ(connect.host, "127.0.0.1");
    EXPECT_EQ(connect.origin, "127.0.0.1");
    EXPECT_EQ(connect.port, 8443);
    EXPECT_EQ(connect.path, "/ws?mac=02:4F:56:00:00:01");
    EXPECT_EQ(connect.protocol, "websock_protocol");
    EXPECT_EQ(connect.version, -1);
    EXPECT_NE(connect.flags & LCCSCF_USE_SSL, 0);
    EXPECT_NE(connect.flags & LCCSCF_SKIP_SERVER_CERT_HOSTNAME_CHECK, 0);
    EXPECT_NE(connect.flags & LCCSCF_HTTP_NO_FOLLOW_REDIRECT, 0);
    EXPECT_EQ(connect.flags & (LCCSCF_ALLOW_SELFSIGNED | LCCSCF_ALLOW_INSECURE | LCCSCF_ALLOW_EXPIRED), 0)
        << "certificates are checked";
}

TEST_F(session_test, the_context_survives_a_reconnect)
{
    connect_agent();
    in_library([] { fake_closed(fake_handle()); });
    EXPECT_EQ(da.state, DA_STATE_IDLE);
    begin_connecting();
    EXPECT_EQ(library.contexts_made, 1);
    EXPECT_EQ(library.connects.size(), 2u);
}

TEST_F(session_test, certificates_are_checked_by_the_agent_under_the_live_host_name)
{
    ssl_ctx_ptr ssl(SSL_CTX_new(TLS_client_method()));
    library.ssl_context = ssl.get();
    begin_connecting();
    EXPECT_TRUE(was_logged("LWS_CALLBACK_OPENSSL_LOAD_EXTRA_CLIENT_VERIFY_CERTS"));
    EXPECT_EQ(verify_callback, ssl_cert_verify_callback);
    EXPECT_EQ(verify_argument, static_cast<void *>(ws_target.host))
        << "the context outlives a change of controller";
    EXPECT_EQ(verify_folder, "/etc/ssl/certs/");
}

/* ---- the descriptor ---- */

TEST_F(session_test, a_connecting_socket_is_watched_for_writing_until_it_was_writable_once)
{
    begin_connecting();
    int fd = ws.websock_fd;
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(was_logged("Add FD to the pollfd " + std::to_string(fd) + " events 2"));
    EXPECT_EQ(ev_watched(fd), static_cast<uint32_t>(EV_WRITE));
    ev_main(); /* an event descriptor is writable */
    EXPECT_EQ(ev_watched(fd), static_cast<uint32_t>(EV_READ));
    EXPECT_EQ(ev_count_fds(), 1);
}

TEST_F(session_test, a_silent_server_does_not_spin_the_loop)
{
    begin_connecting();
    ev_main();
    fake_waits.clear();
    run_seconds(50);
    EXPECT_LE(fake_waits.size(), 60u) << "once a second is enough";
    EXPECT_GE(library.services, 40) << "the library has time-outs of its own to look after";
}

TEST_F(session_test, the_registration_follows_the_descriptor)
{
    connect_agent();
    int fd = ws.websock_fd;
    in_library([] { fake_closed(fake_handle()); });
    EXPECT_TRUE(was_logged("Delete FD from pollfd " + std::to_string(fd)));
    EXPECT_EQ(ws.websock_fd, -1);
    EXPECT_EQ(ev_count_fds(), 0);
}

TEST_F(session_test, an_established_connection_needs_no_serving_timer)
{
    connect_agent(false);
    EXPECT_EQ(ev_watched(ws.websock_fd), static_cast<uint32_t>(EV_READ));
    int64_t services = 0;
    run_seconds(3);
    services = library.services;
    cancel_ping_timer();
    timer_disarm(pmac_timer);
    cancel_registration();
    run_seconds(100);
    EXPECT_EQ(library.services, services);
}

TEST_F(session_test, a_readable_event_serves_twice_and_what_is_hidden_within_bounds)
{
    connect_agent();
    library.services = 0;
    ws_fd_event_cb(ws.websock_fd, EV_READ, ws.context);
    EXPECT_EQ(library.services, 2);
    library.services = 0;
    library.hidden_services = 3;
    ws_fd_event_cb(ws.websock_fd, EV_READ, ws.context);
    EXPECT_EQ(library.services, 5);
    library.services = 0;
    library.hidden_services = 1000000;
    ws_fd_event_cb(ws.websock_fd, EV_READ, ws.context);
    EXPECT_LE(library.services, 100);
    library.hidden_services = 0;
}

TEST_F(session_test, an_unknown_event_is_refused)
{
    connect_agent();
    library.services = 0;
    ws_fd_event_cb(ws.websock_fd, 3, ws.context);
    EXPECT_TRUE(was_logged("Invalid event received"));
    EXPECT_EQ(library.services, 0);
}

/* ---- established ---- */

TEST_F(session_test, established_resets_and_enters_connected)
{
    begin_connecting();
    ws.connect_attempts = 7;
    ws.reconnect_attempts = 2;
    ws.pong_loss = 3;
    idle_timeout = 300;
    int timers = ev_count_timers();
    in_library([] { fake_established(fake_handle()); });
    EXPECT_EQ(da.state, DA_STATE_CONNECTED);
    EXPECT_EQ(ws.connect_attempts, 0);
    EXPECT_EQ(ws.reconnect_attempts, 0);
    EXPECT_EQ(ws.pong_loss, 0);
    EXPECT_EQ(idle_timeout, 5);
    EXPECT_EQ(connect_timer.handle, nullptr);
    EXPECT_EQ(stats_cancelled, 1);
    EXPECT_TRUE(was_logged("callback_websocket: LWS_CALLBACK_CLIENT_ESTABLISHED"));
    EXPECT_TRUE(was_logged("Cleanup any leftover stats requests/timers"));
    int delay = logged_number("send ping after ");
    EXPECT_GE(delay, 15);
    EXPECT_LE(delay, 29);
    EXPECT_TRUE(was_logged("send ping after " + std::to_string(delay) + " seconds"));
    EXPECT_TRUE(was_logged("send controller data 1 seconds"));
    EXPECT_EQ(ev_count_timers(), timers - 1 + 3) << "PING, PMAC and REGISTER for LWS CONNECTING";
}

TEST_F(session_test, nothing_is_done_inside_the_library)
{
    begin_connecting();
    library.script.push_back([] {
        fake_established(fake_handle());
        EXPECT_EQ(da.state, DA_STATE_CONNECTING);
        fake_receive(fake_handle(), "text");
        EXPECT_EQ(received.size(), 0u);
    });
    ws_fd_event_cb(ws.websock_fd, EV_READ, ws.context);
    EXPECT_EQ(da.state, DA_STATE_CONNECTED);
    EXPECT_EQ(received, texts{"text"});
    EXPECT_FALSE(inside_library);
}

/* ---- closed ---- */

TEST_F(session_test, closed_cleans_up_and_enters_disconnected)
{
    connect_agent();
    ws.connect_attempts = 3;
    ws.destroy_pending = 1;
    clear_log();
    in_library([] { fake_closed(fake_handle()); });
    EXPECT_TRUE(was_logged("callback_websocket: LWS_CALLBACK_CLOSED"));
    EXPECT_TRUE(was_logged("Cancelling ping timer"));
    EXPECT_TRUE(was_logged_beginning("PURGE-Q: txq_mem_size="));
    EXPECT_TRUE(was_logged("DA_STATE_DISCONNECTED"));
    EXPECT_EQ(times_logged_beginning("DA_STATE_DISCONNECTED"), 1) << "closed and destroyed are one loss";
    EXPECT_EQ(ws.connect_attempts, 0);
    EXPECT_EQ(ws.destroy_pending, 0);
    EXPECT_EQ(ws.wsi, nullptr);
    EXPECT_EQ(txq, nullptr);
    EXPECT_EQ(da.state, DA_STATE_IDLE);
    EXPECT_EQ(library.kills, 0) << "the handle is dangling";
}

TEST_F(session_test, a_handle_destroyed_without_a_verdict_counts_as_closed_once_established)
{
    connect_agent();
    in_library([] { fake_report(fake_handle(), LWS_CALLBACK_WSI_DESTROY); });
    EXPECT_TRUE(was_logged("callback_websocket: LWS_CALLBACK_CLOSED"));
    EXPECT_EQ(da.state, DA_STATE_IDLE);
}

TEST_F(session_test, a_handle_destroyed_without_a_verdict_counts_as_an_error_before)
{
    begin_connecting();
    in_library([] { fake_report(fake_handle(), LWS_CALLBACK_WSI_DESTROY); });
    EXPECT_TRUE(was_logged_beginning("callback_websocket: LWS_CALLBACK_CLIENT_CONNECTION_ERROR (ctimer=0x"));
    EXPECT_EQ(ws.reconnect_scheduled, 1);
}

TEST_F(session_test, a_half_message_of_a_lost_connection_is_forgotten)
{
    connect_agent();
    in_library([] { fake_receive(fake_handle(), "half", 100); });
    in_library([] { fake_closed(fake_handle()); });
    connect_agent();
    in_library([] { fake_receive(fake_handle(), "whole"); });
    EXPECT_EQ(received, texts{"whole"});
}

/* ---- connection errors ---- */

TEST_F(session_test, an_error_while_connecting_schedules_a_reconnect)
{
    begin_connecting();
    ws.connect_attempts = 4;
    ev_timer *timer = connect_timer.handle;
    char told[100];
    snprintf(told, sizeof(told), "callback_websocket: LWS_CALLBACK_CLIENT_CONNECTION_ERROR (ctimer=%p)",
             static_cast<void *>(timer));
    in_library([] { fake_refused(fake_handle()); });
    EXPECT_TRUE(was_logged(told));
    EXPECT_EQ(ws.connect_attempts, 0);
    EXPECT_EQ(connect_timer.handle, nullptr);
    EXPECT_EQ(ws.reconnect_scheduled, 1);
    EXPECT_EQ(ws.reconnect_attempts, 1);
    EXPECT_EQ(da.state, DA_STATE_CONNECTING);
    EXPECT_EQ(ws.websock_fd, -1);
    EXPECT_EQ(ev_count_fds(), 0);
}

TEST_F(session_test, an_error_without_a_connect_timer_schedules_nothing)
{
    begin_connecting();
    timer_disarm(connect_timer);
    ws.connect_attempts = 4;
    in_library([] { fake_refused(fake_handle()); });
    EXPECT_TRUE(was_logged("callback_websocket: LWS_CALLBACK_CLIENT_CONNECTION_ERROR (ctimer=(nil))"));
    EXPECT_EQ(ws.connect_attempts, 0);
    EXPECT_EQ(ws.reconnect_scheduled, 0);
    EXPECT_FALSE(was_logged("wait_for_reconnect: ENTRY"));
}

TEST_F(session_test, an_error_in_another_state_bails_out)
{
    for (int32_t state : {DA_STATE_IDLE, DA_STATE_DISCOVERY, DA_STATE_DISCONNECTED}) {
        begin_connecting();
        clear_log();
        da.state = state;
        in_library([] { fake_refused(fake_handle()); });
        EXPECT_TRUE(was_logged("Da state is not connecting/connected, bail out")) << state;
        EXPECT_FALSE(was_logged("wait_for_reconnect: ENTRY")) << state;
        EXPECT_EQ(connect_timer.handle, nullptr);
    }
}

TEST_F(session_test, an_error_after_a_scheduled_reconnect_schedules_no_second_one)
{
    begin_connecting();
    ws.reconnect_scheduled = 1;
    in_library([] { fake_refused(fake_handle()); });
    EXPECT_FALSE(was_logged("wait_for_reconnect: ENTRY"));
    EXPECT_EQ(connect_timer.handle, nullptr);
}

TEST_F(session_test, an_error_in_state_3_schedules_a_reconnect_too)
{
    begin_connecting();
    da.state = DA_STATE_CONNECTED;
    in_library([] { fake_refused(fake_handle()); });
    EXPECT_TRUE(was_logged("wait_for_reconnect: ENTRY"));
    da.state = DA_STATE_CONNECTING;
}

TEST_F(session_test, the_servers_refusal_is_told)
{
    begin_connecting();
    library.response = 403;
    library.status_text = "403 Forbidden";
    in_library([] { fake_refused(fake_handle()); });
    EXPECT_TRUE(was_logged("Websocket rejected by server 403 Forbidden"));
}

TEST_F(session_test, a_server_that_did_not_answer_refused_nothing)
{
    begin_connecting();
    in_library([] { fake_refused(fake_handle()); });
    EXPECT_FALSE(was_logged_beginning("Websocket rejected by server"));
}

/* ---- events of connections that are no more ---- */

TEST_F(session_test, reports_about_a_handle_that_is_not_the_current_one_are_ignored)
{
    begin_connecting();
    lws *old = fake_handle();
    da_enter_state(DA_STATE_DISCONNECTED);
    EXPECT_EQ(library.kills, 1);
    connect_agent();
    ASSERT_NE(ws.wsi, old);
    clear_log();
    in_library([old] {
        fake_receive(old, "old");
        fake_report(old, LWS_CALLBACK_CLIENT_RECEIVE_PONG);
        fake_report(old, LWS_CALLBACK_CLIENT_WRITEABLE);
        fake_report(old, LWS_CALLBACK_CLIENT_CLOSED);
        fake_report(old, LWS_CALLBACK_CLIENT_CONNECTION_ERROR);
        fake_report(old, LWS_CALLBACK_WSI_DESTROY);
    });
    EXPECT_EQ(da.state, DA_STATE_CONNECTED);
    EXPECT_EQ(received, texts{});
    EXPECT_EQ(restores_cancelled, 0);
    EXPECT_NE(ws.wsi, nullptr);
    EXPECT_FALSE(was_logged("callback_websocket: LWS_CALLBACK_CLIENT_RECEIVE"));
    EXPECT_FALSE(was_logged("callback_websocket: LWS_CALLBACK_CLOSED"));
    EXPECT_FALSE(was_logged_beginning("callback_websocket: LWS_CALLBACK_CLIENT_CONNECTION_ERROR"));
}

TEST_F(session_test, what_was_reported_before_a_connection_was_given_up_is_ignored_after_it)
{
    connect_agent();
    during_message = [] { da_enter_state(DA_STATE_DISCONNECTED); };
    in_library([] {
        fake_receive(fake_handle(), "first");
        fake_receive(fake_handle(), "second");
        fake_report(fake_handle(), LWS_CALLBACK_CLIENT_RECEIVE_PONG);
    });
    EXPECT_EQ(received, texts{"first"});
    EXPECT_EQ(restores_cancelled, 0);
    EXPECT_EQ(times_logged_beginning("DA_STATE_DISCONNECTED"), 1);
}

TEST_F(session_test, reports_without_a_handle_or_of_no_interest_return_0)
{
    connect_agent();
    EXPECT_EQ(callback_websocket(nullptr, LWS_CALLBACK_PROTOCOL_INIT, nullptr, nullptr, 0), 0);
    EXPECT_EQ(fake_report(fake_handle(), LWS_CALLBACK_CLIENT_APPEND_HANDSHAKE_HEADER), 0);
    EXPECT_EQ(fake_report(fake_handle(), LWS_CALLBACK_TIMER), 0);
    EXPECT_EQ(da.state, DA_STATE_CONNECTED);
}

/* ---- messages ---- */

TEST_F(session_test, a_message_is_handed_over_terminated)
{
    connect_agent();
    clear_log();
    in_library([] { fake_receive(fake_handle(), "{\"msgType\": 400}"); });
    EXPECT_EQ(received, texts{"{\"msgType\": 400}"});
    EXPECT_TRUE(terminated);
    EXPECT_TRUE(was_logged("callback_websocket: LWS_CALLBACK_CLIENT_RECEIVE"));
    EXPECT_TRUE(was_logged("rx 16 [{\"msgType\": 400}]"));
    EXPECT_TRUE(was_logged("PayLoad remaining is 0"));
}

TEST_F(session_test, ten_thousand_bytes_in_three_pieces_are_handed_over_once)
{
    connect_agent();
    std::string text(10000, 'x');
    text[0] = 'A';
    text[9999] = 'Z';
    in_library([&] { fake_receive(fake_handle(), text.substr(0, 4096), 5904); });
    in_library([&] { fake_receive(fake_handle(), text.substr(4096, 4096), 1808); });
    EXPECT_EQ(received, texts{});
    in_library([&] { fake_receive(fake_handle(), text.substr(8192), 0); });
    EXPECT_EQ(received, texts{text});
    EXPECT_TRUE(was_logged("PayLoad remaining is 5904"));
}

TEST_F(session_test, a_message_of_several_frames_is_handed_over_once)
{
    connect_agent();
    in_library([] {
        fake_receive(fake_handle(), "one ", 0, false);
        fake_receive(fake_handle(), "two", 0, true);
    });
    EXPECT_EQ(received, texts{"one two"});
}

TEST_F(session_test, messages_and_the_closure_are_acted_upon_in_order)
{
    connect_agent();
    static int32_t state_at_message;
    during_message = [] { state_at_message = da.state; };
    in_library([] {
        fake_receive(fake_handle(), "first");
        fake_receive(fake_handle(), "second");
        fake_closed(fake_handle());
    });
    EXPECT_EQ(received, (texts{"first", "second"}));
    EXPECT_EQ(state_at_message, DA_STATE_CONNECTED);
    EXPECT_EQ(da.state, DA_STATE_IDLE);
}

TEST_F(session_test, a_message_that_cannot_be_held_drops_the_connection)
{
    connect_agent();
    in_library([] { EXPECT_EQ(fake_receive(fake_handle(), "much", size_t{64} * 1024 * 1024), -1); });
    EXPECT_EQ(da.state, DA_STATE_IDLE);
    EXPECT_TRUE(was_logged("Not able  to allocate memory for payload , return error"));
    EXPECT_EQ(received, texts{});
}

/* Nothing is delivered of it yet, and never may be. */
TEST_F(session_test, a_frame_that_claims_too_much_drops_the_connection)
{
    connect_agent();
    library.remaining = RX_MESSAGE_LIMIT;
    ws_fd_event_cb(ws.websock_fd, EV_READ, ws.context);
    EXPECT_EQ(da.state, DA_STATE_CONNECTED) << "the longest one that is taken";
    library.remaining = size_t{1} << 62;
    ws_fd_event_cb(ws.websock_fd, EV_READ, ws.context);
    EXPECT_EQ(da.state, DA_STATE_IDLE);
    EXPECT_EQ(library.kills, 1);
    EXPECT_EQ(ws.websock_fd, -1);
    EXPECT_TRUE(was_logged("Not able  to allocate memory for payload , return error"));
    EXPECT_TRUE(was_logged("callback_websocket: LWS_CALLBACK_CLOSED"));
}

TEST_F(session_test, an_answer_to_a_message_leaves_after_it)
{
    connect_agent(false);
    during_message = [] { write_to_orv("answer", 6, 0); };
    in_library([] { fake_receive(fake_handle(), "question"); });
    EXPECT_EQ(fake_wire_text(), "");
    drain();
    EXPECT_EQ(fake_wire_text(), "1:answer");
}

TEST_F(session_test, an_answer_to_a_connection_that_was_closed_meanwhile_goes_nowhere)
{
    connect_agent();
    drain();
    library.wire.clear();
    during_message = [] { EXPECT_EQ(write_to_orv("answer", 6, 0), 0); };
    in_library([] {
        fake_receive(fake_handle(), "question");
        fake_closed(fake_handle());
    });
    EXPECT_EQ(txq, nullptr);
    EXPECT_EQ(fake_wire_text(), "");
}

/* ---- pongs ---- */

TEST_F(session_test, a_pong_proves_the_connection_alive)
{
    connect_agent();
    ws.pong_received = 0;
    in_library([] { fake_report(fake_handle(), LWS_CALLBACK_CLIENT_RECEIVE_PONG); });
    EXPECT_TRUE(was_logged("callback_websocket: Received Pong message from Orvanta"));
    EXPECT_EQ(ws.pong_received, 1);
    EXPECT_EQ(restores_cancelled, 1);
}

/* ---- writable ---- */

TEST_F(session_test, writable_without_anything_to_send_watches_for_reading_only)
{
    connect_agent(false);
    ws_request_writable();
    clear_log();
    in_library([] {});
    EXPECT_TRUE(was_logged("callback_websocket: LWS_CALLBACK_CLIENT_WRITEABLE"));
    EXPECT_EQ(library.drops, 0);
    EXPECT_EQ(ev_watched(ws.websock_fd), static_cast<uint32_t>(EV_READ));
    EXPECT_EQ(in_writable, 0);
}
