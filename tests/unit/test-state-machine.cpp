#include "agent/enter-state.h"

#include <cstring>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include "tests/unit/connection-test.h"

class state_test : public connection_test {
protected:
    void SetUp() override
    {
        connection_test::SetUp();
        write_file(DEVICE_RECONFIGURED_FILE, "");
        (void)unlink(DEVICE_RECONFIGURED_FILE);
    }
};
using state_death_test = state_test;

/* Puts the agent where a discovery pass begins, and runs it. */
static void discover(void)
{
    da.state = DA_STATE_IDLE;
    da_enter_state(DA_STATE_DISCOVERY);
}

/* The reconnect waits, "LWS CONNECTING" and the like that are pending are left to run until the state is
 * this. */
static int seconds_until_state(int32_t state)
{
    return seconds_until([state] { return da.state == state; });
}

static std::string shown(void) { return file_text(ORV_STATE_FILE); }

/* ---- entering ---- */

TEST_F(state_test, every_entry_is_told_stored_and_counted)
{
    hooks.state_entry[DA_STATE_DISCOVERY] = nullptr;
    da.state = DA_STATE_CONNECTED;
    uint32_t generation = state_generation;
    da_enter_state(DA_STATE_DISCOVERY);
    EXPECT_TRUE(was_logged("Previous state 3 new state 1"));
    EXPECT_EQ(da.state, DA_STATE_DISCOVERY);
    EXPECT_EQ(state_generation, generation + 1);
}

TEST_F(state_death_test, a_state_that_does_not_exist_aborts)
{
    for (int32_t state : {-1, 5, INT32_MAX, INT32_MIN}) {
        clear_log();
        EXPECT_EXIT(da_enter_state(state), testing::KilledBySignal(SIGABRT), "") << state;
        EXPECT_TRUE(was_logged("Previous state 0 new state " + std::to_string(state)));
        EXPECT_TRUE(was_logged("Fatal error, aborting Device-Agent"));
    }
}

/* ---- idle ---- */

TEST_F(state_test, idle_waits_and_then_discovers)
{
    da_enter_state(DA_STATE_IDLE);
    EXPECT_TRUE(was_logged("da_enter_state:DA_STATE_IDLE"));
    EXPECT_TRUE(was_logged("started discover timer, idle_timeout = 5"));
    EXPECT_TRUE(was_logged("Attempting (re)connection in 5 seconds"));
    EXPECT_EQ(shown(), "Connecting");
    EXPECT_NE(discovery_timer.handle, nullptr);
    ws.reconnect_scheduled = 1;
    int took = seconds_until([] { return neighbours.discoveries == 1; });
    EXPECT_GE(took, 5);
    EXPECT_LE(took, 7);
    EXPECT_EQ(ws.reconnect_scheduled, 0);
    EXPECT_EQ(da.state, DA_STATE_CONNECTING);
}

struct idle_row {
    int32_t idle_timeout;
    const char *attempt;
    int32_t retry_time;
    const char *shown;
};

TEST_F(state_test, the_next_attempt_is_told_in_seconds_or_minutes)
{
    static const idle_row rows[] = {
        {5, "Attempting (re)connection in 5 seconds", 0, "Connecting"},
        {60, "Attempting (re)connection in 60 seconds", 0, "Connecting"},
        {61, "Attempting (re)connection in 61 seconds", 61, "Connecting in 1 minute"},
        {119, "Attempting (re)connection in 119 seconds", 119, "Connecting in 1 minute"},
        {120, "Attempting (re)connection in 2 minutes", 120, "Connecting in 2 minutes"},
        {179, "Attempting (re)connection in 2 minutes", 179, "Connecting in 2 minutes"},
        {300, "Attempting (re)connection in 5 minutes", 300, "Connecting in 5 minutes"},
    };
    for (const idle_row &row : rows) {
        clear_log();
        retry_time = -1;
        idle_timeout = row.idle_timeout;
        da_enter_state(DA_STATE_IDLE);
        EXPECT_TRUE(was_logged(row.attempt)) << row.attempt;
        EXPECT_EQ(times_logged_beginning("Attempting (re)connection in "), 1);
        EXPECT_EQ(retry_time, row.retry_time) << row.idle_timeout;
        EXPECT_EQ(shown(), row.shown) << row.idle_timeout;
    }
}

TEST_F(state_test, an_idle_time_out_below_1_counts_as_1)
{
    for (int32_t seconds : {0, -5}) {
        idle_timeout = seconds;
        da_enter_state(DA_STATE_IDLE);
        EXPECT_EQ(idle_timeout, 1);
        EXPECT_TRUE(was_logged("Attempting (re)connection in 1 seconds"));
    }
}

TEST_F(state_test, a_status_that_must_stay_on_display_stays)
{
    platform_set_orv_connection_state(ORV_ACCESS_DENIED, nullptr);
    EXPECT_EQ(orv_state_action_pending, 1);
    idle_timeout = 300;
    retry_time = 17;
    da_enter_state(DA_STATE_IDLE);
    EXPECT_EQ(shown(), "Access Denied");
    EXPECT_EQ(retry_time, 17);
    EXPECT_NE(discovery_timer.handle, nullptr);
}

TEST_F(state_test, with_stay_idle_nothing_happens_at_all)
{
    platform_set_orv_connection_state(ORV_NOT_CONNECTED, nullptr);
    clear_log();
    stay_idle = 1;
    da.state = DA_STATE_DISCONNECTED;
    da_enter_state(DA_STATE_IDLE);
    EXPECT_EQ(da.state, DA_STATE_IDLE);
    EXPECT_EQ(ev_count_timers(), 0);
    EXPECT_EQ(shown(), "Not Connected");
    EXPECT_EQ(logged().size(), 1u) << "the state change alone is told";
}

TEST_F(state_test, the_discovery_delay_does_nothing_in_another_state)
{
    da_enter_state(DA_STATE_IDLE);
    da.state = DA_STATE_CONNECTED;
    run_seconds(20);
    EXPECT_EQ(neighbours.discoveries, 0);
    EXPECT_EQ(discovery_timer.handle, nullptr);
    da.state = DA_STATE_IDLE;
}

TEST_F(state_test, entering_idle_twice_leaves_one_delay)
{
    da_enter_state(DA_STATE_IDLE);
    da_enter_state(DA_STATE_IDLE);
    EXPECT_EQ(ev_count_timers(), 1);
}

TEST_F(state_test, a_stale_descriptor_of_ours_is_closed)
{
    int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ws.websock_fd = fd;
    ev_add_fd(fd, EV_READ, ws_fd_event_cb, nullptr);
    da_enter_state(DA_STATE_IDLE);
    EXPECT_TRUE(was_logged("Cleaning stale websock_fd " + std::to_string(fd)));
    EXPECT_EQ(ws.websock_fd, -1);
    EXPECT_EQ(ev_count_fds(), 0);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

TEST_F(state_test, a_stale_descriptor_that_the_library_holds_is_closed_by_the_library)
{
    begin_connecting();
    int fd = ws.websock_fd;
    timer_disarm(connect_timer);
    da_enter_state(DA_STATE_IDLE);
    EXPECT_TRUE(was_logged("Cleaning stale websock_fd " + std::to_string(fd)));
    EXPECT_EQ(ws.websock_fd, -1);
    EXPECT_EQ(ws.wsi, nullptr);
    EXPECT_EQ(library.kills, 1);
    EXPECT_EQ(ev_count_fds(), 0);
}

TEST_F(state_test, without_a_stale_descriptor_nothing_is_said)
{
    da_enter_state(DA_STATE_IDLE);
    EXPECT_FALSE(was_logged_beginning("Cleaning stale websock_fd"));
}

/* ---- discovery ---- */

TEST_F(state_test, a_discovery_that_fails_goes_back_to_idle)
{
    neighbours.discovery_result = -1;
    idle_timeout = 66;
    discover();
    EXPECT_TRUE(was_logged("da_enter_state:DA_STATE_DISCOVERY"));
    EXPECT_TRUE(was_logged("Unable to discover Orvanta URL (re-discover in 66 seconds)"));
    EXPECT_EQ(da.state, DA_STATE_IDLE);
    EXPECT_TRUE(was_logged("Attempting (re)connection in 66 seconds"));
    EXPECT_EQ(library.connects.size(), 0u);
}

TEST_F(state_test, a_discovery_without_a_url_goes_back_to_idle)
{
    neighbours.orv_url = nullptr;
    discover();
    EXPECT_TRUE(was_logged("Not able to get orv url "));
    EXPECT_EQ(da.state, DA_STATE_IDLE);
}

TEST_F(state_test, a_url_that_is_none_goes_back_to_idle)
{
    for (const char *url : {"", "no url", "https://", "https://host:port/"}) {
        clear_log();
        neighbours.orv_url = url;
        discover();
        EXPECT_TRUE(was_logged("Parse error : 1\n")) << url;
        EXPECT_EQ(da.state, DA_STATE_IDLE) << url;
    }
}

TEST_F(state_test, a_url_whose_parts_do_not_fit_goes_back_to_idle)
{
    std::string url = "https://127.0.0.1/" + std::string(4000, 'p');
    neighbours.orv_url = url.c_str();
    discover();
    EXPECT_TRUE(was_logged("Failed to get orv_parsed_url details "));
    EXPECT_EQ(da.state, DA_STATE_IDLE);
}

TEST_F(state_test, a_host_that_cannot_be_resolved_goes_back_to_idle_and_is_shown)
{
    neighbours.orv_url = "https://unknown.example/ws";
    discover();
    EXPECT_TRUE(was_logged("Not able to resolve unknown.example"));
    EXPECT_TRUE(was_logged("Failed to resolve redirect URL [unknown.example]"));
    EXPECT_EQ(neighbours.idle_time_outs_set, 1);
    EXPECT_TRUE(was_logged("Attempting (re)connection in 77 seconds"));
    EXPECT_EQ(shown(), "Resolving URL") << "it stays on display";
    EXPECT_EQ(da.state, DA_STATE_IDLE);
}

struct target_row {
    const char *url, *device_id;
    int32_t dhcp15_allowed;
    int port;
    const char *path;
};

TEST_F(state_test, ports_and_paths)
{
    static const target_row rows[] = {
        {"https://127.0.0.1:8443/ws", "", 0, 8443, "/ws?mac=02:4F:56:00:00:01"},
        {"https://127.0.0.1:8443/ws", "ID7", 0, 8443, "/ws?mac=02:4F:56:00:00:01&deviceId=ID7"},
        {"https://127.0.0.1", "", 0, 443, "/?mac=02:4F:56:00:00:01"},
        {"https://127.0.0.1", "ID7", 0, 443, "/?mac=02:4F:56:00:00:01&deviceId=ID7"},
        /* a controller named by DHCP option 15 is not told the id */
        {"https://127.0.0.1/a/b", "ID7", 1, 443, "/a/b?mac=02:4F:56:00:00:01"},
        {"https://127.0.0.1:9", "ID7", 1, 9, "/?mac=02:4F:56:00:00:01"},
        {"https://127.0.0.1:8443/", "ID7", 0, 8443, "/?mac=02:4F:56:00:00:01&deviceId=ID7"},
    };
    for (const target_row &row : rows) {
        clear_log();
        library.connects.clear();
        neighbours.orv_url = row.url;
        snprintf(da.deviceId, sizeof(da.deviceId), "%s", row.device_id);
        da.dhcp15_allowed = row.dhcp15_allowed;
        discover();
        ASSERT_EQ(library.connects.size(), 1u) << row.url;
        EXPECT_EQ(library.connects[0].address, "127.0.0.1");
        EXPECT_EQ(library.connects[0].port, row.port) << row.url;
        EXPECT_EQ(library.connects[0].path, row.path) << row.url;
        EXPECT_TRUE(was_logged("Make Websocket connection to 127.0.0.1 : " + std::to_string(row.port) +
                               " : path = " + row.path));
        EXPECT_EQ(da.state, DA_STATE_CONNECTING);
    }
}

/* The id came from the network and goes into a request line. */
TEST_F(state_test, a_device_id_that_would_end_the_request_line_is_left_out)
{
    for (const char *id : {"ID 7", "ID7\r\nX-Other: 1", "ID\t7", "ID\x7F", "caf\xC3\xA9"}) {
        library.connects.clear();
        snprintf(da.deviceId, sizeof(da.deviceId), "%s", id);
        discover();
        ASSERT_EQ(library.connects.size(), 1u);
        EXPECT_EQ(library.connects[0].path, "/ws?mac=02:4F:56:00:00:01") << id;
    }
}

TEST_F(state_test, a_path_is_cut_to_255_characters)
{
    std::string url = "https://127.0.0.1/" + std::string(250, 'p');
    neighbours.orv_url = url.c_str();
    discover();
    ASSERT_EQ(library.connects.size(), 1u);
    EXPECT_EQ(library.connects[0].path, "/" + std::string(250, 'p') + "?mac");
}

TEST_F(state_test, a_discovery_that_was_overtaken_changes_nothing)
{
    /* SIGUSR1 strikes while the onboarding waits. */
    neighbours.during_discovery = [] { da_enter_state(DA_STATE_DISCONNECTED); };
    for (int result : {0, -1}) {
        clear_log();
        neighbours.discovery_result = result;
        discover();
        EXPECT_EQ(da.state, DA_STATE_IDLE) << result;
        EXPECT_EQ(times_logged_beginning("da_enter_state:DA_STATE_IDLE"), 1) << result;
        EXPECT_FALSE(was_logged_beginning("Unable to discover Orvanta URL"));
        EXPECT_EQ(ev_count_timers(), 1) << "one discovery delay";
    }
    EXPECT_EQ(library.connects.size(), 0u);
}

/* ---- connected ---- */

TEST_F(state_test, connected_begins_with_a_clean_record)
{
    write_file(DEVICE_RECONFIGURED_FILE, "");
    da.connect_count = 3;
    idle_timeout = 300;
    begin_connecting();
    ws.reconnect_attempts = 2;
    in_library([] { fake_established(fake_handle()); });
    EXPECT_TRUE(was_logged("Connected to Orvanta (3)"));
    EXPECT_EQ(da.connect_count, 4);
    EXPECT_EQ(ws.reconnect_attempts, 0);
    EXPECT_EQ(idle_timeout, 5);
    EXPECT_FALSE(path_exists(DEVICE_RECONFIGURED_FILE));
    EXPECT_EQ(ev_watched(ws.websock_fd), static_cast<uint32_t>(EV_READ));
}

/* ---- disconnected ---- */

TEST_F(state_test, disconnected_cleans_up_and_goes_to_idle)
{
    static int stats_cancelled;
    stats_cancelled = 0;
    connect_agent();
    hooks.cancel_periodic_stats = [] { stats_cancelled++; };
    da.registered = 1;
    da.register_sent = 1;
    pmac_discovery_complete = 1;
    ws.pong_received = 0;
    ws.pong_loss = 4;
    ws.close_pending = 1;
    ws.destroy_pending = 1;
    ws.reconnect_scheduled = 1;
    write_to_orv("queued", 6, 0);
    in_writable = 1;
    clear_log();
    int listeners = neighbours.pmac_listeners;
    da_enter_state(DA_STATE_DISCONNECTED);

    EXPECT_EQ(da.state, DA_STATE_IDLE);
    EXPECT_TRUE(was_logged("DA_STATE_DISCONNECTED"));
    EXPECT_TRUE(was_logged("da_enter_state:DA_STATE_IDLE"));
    EXPECT_EQ(ws.websock_fd, -1);
    EXPECT_EQ(ev_count_fds(), 0);
    EXPECT_EQ(pmac_discovery_complete, 0);
    EXPECT_EQ(neighbours.pmac_listeners, listeners + 1);
    EXPECT_EQ(stats_cancelled, 1);
    EXPECT_EQ(da.registered, 0);
    EXPECT_EQ(da.register_sent, 0);
    EXPECT_EQ(ws.pong_received, 1);
    EXPECT_EQ(ws.pong_loss, 0);
    EXPECT_EQ(ws.close_pending, 0);
    EXPECT_EQ(ws.destroy_pending, 0);
    EXPECT_EQ(ws.reconnect_scheduled, 0);
    EXPECT_EQ(in_writable, 0);
    EXPECT_EQ(txq, nullptr);
    EXPECT_EQ(library.kills, 1);
    EXPECT_TRUE(was_logged("platform_set_orv_connection_state: New Connection_state Not Connected(0)"));
    EXPECT_EQ(shown(), "Connecting");
}

struct timer_row {
    const char *name;
    void (*start)(void);
};

/* Each connection timer is started alone; after entering state 4 none runs. */
TEST_F(state_test, no_timer_of_a_connection_survives_its_loss)
{
    static const timer_row rows[] = {
        {"LWS CONNECTING", begin_connecting},
        {"WAIT FOR RECONNECT", wait_for_reconnect},
        {"PING",
         [] {
             pmac_discovery_complete = 1;
             start_pings();
         }},
        {"PMAC",
         [] {
             start_pings();
             timer_disarm(ping_timer);
         }},
        {"REGISTER",
         [] {
             da.state = DA_STATE_CONNECTED;
             da_register();
         }},
        {"REGISTER RESPONSE WAIT",
         [] {
             connect_agent();
             timer_disarm(ping_timer);
         }},
        {"REGISTER FAILED", retry_registration},
        {"WS DESTROY", expect_closure},
        {"DA DISCONNECT",
         [] {
             ws.destroy_pending = 1;
             ws_destroy_cb(nullptr);
         }},
    };
    for (const timer_row &row : rows) {
        stay_idle = 1;
        pmac_discovery_complete = 0;
        da.state = DA_STATE_IDLE;
        row.start();
        timer_disarm(serve_timer);
        EXPECT_EQ(ev_count_timers(), 1) << row.name;
        da_enter_state(DA_STATE_DISCONNECTED);
        timer_disarm(serve_timer);
        EXPECT_EQ(ev_count_timers(), 0) << row.name;
    }
}

TEST_F(state_test, the_timer_between_two_registers_does_not_survive_either)
{
    connect_agent();
    timer_disarm(ping_timer);
    EXPECT_NE(seconds_until([] { return da.register_sent == 0; }), -1); /* "REGISTER DELAY" runs now */
    EXPECT_EQ(ev_count_timers(), 1);
    stay_idle = 1;
    da_enter_state(DA_STATE_DISCONNECTED);
    timer_disarm(serve_timer);
    EXPECT_EQ(ev_count_timers(), 0);
}

TEST_F(state_test, a_half_message_is_forgotten_with_the_connection)
{
    std::string message;
    ws_rx_piece("half", 4, 10, true, &message);
    da_enter_state(DA_STATE_DISCONNECTED);
    EXPECT_EQ(ws_rx_piece("whole", 5, 0, true, &message), RX_COMPLETE);
    EXPECT_EQ(message, "whole");
}

/* ---- the whole way round ---- */

TEST_F(state_test, a_lost_connection_is_found_again)
{
    da_enter_state(DA_STATE_IDLE);
    EXPECT_NE(seconds_until_state(DA_STATE_CONNECTING), -1);
    in_library([] { fake_established(fake_handle()); });
    EXPECT_EQ(da.state, DA_STATE_CONNECTED);
    in_library([] { fake_closed(fake_handle()); });
    EXPECT_EQ(da.state, DA_STATE_IDLE);
    EXPECT_NE(seconds_until_state(DA_STATE_CONNECTING), -1);
    EXPECT_EQ(neighbours.discoveries, 2);
    in_library([] { fake_established(fake_handle()); });
    EXPECT_EQ(da.connect_count, 2);
}
