#include "tests/unit/walk.h"

#include <csignal>

#include "agent/signal-mask.h"
#include "discovery/discover-orv.h"
#include "tests/unit/connection-test.h"

static const char *const good_url = "https://127.0.0.1:8443/ws";

bool walk_controller_closes = true;

/* ---- means ---- */

void walk_serve(const std::function<void()> &act)
{
    if (!ws.context)
        return;
    library.script.push_back(act);
    ws_fd_event_cb(ws.websock_fd, EV_READ, ws.context);
    library.script.clear();
}

void walk_reset(void)
{
    neighbours.discovery_result = 0;
    neighbours.during_discovery = nullptr;
    neighbours.orv_url = good_url;
    neighbours.pmac_complete_at_search = 0;
    library.refuses_connection = false;
    library.reports_error_in_connect = false;
    library.script.clear();
}

static void pass(int seconds)
{
    /* The eleventh time-out in a row ends the process: another agent begins, that is another story. */
    if (ws.connect_attempts >= 9)
        ws.connect_attempts = 0;
    run_seconds(seconds);
}

static void deliver(const char *message)
{
    walk_serve([message] { fake_receive(fake_handle(), message); });
}

static void strike(int number)
{
    raise(number);
    ev_main();
    da.debug_level = -1; /* the walk says what happened */
}

static bool always(void) { return true; }
static bool there_is_a_handle(void) { return ws.context && fake_handle() && fake_handle() == ws.wsi; }
static bool coming_up(void) { return there_is_a_handle() && !fake_is_established(ws.wsi); }
static bool open(void)
{
    return there_is_a_handle() && fake_is_established(ws.wsi) && !fake_is_closing(ws.wsi);
}
static bool going_down(void) { return there_is_a_handle() && fake_is_closing(ws.wsi); }

/* ---- what happens ---- */

static void fail_discovery(void)
{
    neighbours.discovery_result = -1;
    neighbours.during_discovery = set_discover_idle_time_out;
}

static void strike_during_discovery(void)
{
    neighbours.during_discovery = [] {
        neighbours.during_discovery = nullptr;
        raise(SIGUSR1);
        signals_let_in(); /* as the waits of the onboarding do */
    };
}

static void established(void)
{
    walk_serve([] { fake_established(fake_handle()); });
}

static void refused(void)
{
    walk_serve([] { fake_refused(fake_handle()); });
}

static void closed(void)
{
    walk_serve([] { fake_closed(fake_handle()); });
}

static void pong(void)
{
    walk_serve([] { fake_report(fake_handle(), LWS_CALLBACK_CLIENT_RECEIVE_PONG); });
}

const std::vector<walk_event> walk_events = {
    {"1 s", always, [] { pass(1); }},
    {"6 s", always, [] { pass(6); }},
    {"31 s", always, [] { pass(31); }},
    {"90 s", always, [] { pass(90); }},
    {"70 s in which the loop is held up", always,
     [] {
         fake_clock_advance(70);
         pass(1);
     }},
    {"established", coming_up, established},
    {"refused", coming_up, refused},
    {"closed by the peer", open, closed},
    {"closure", going_down, closed},
    {"pong", open, pong},
    {"accepted", open, [] { deliver("{\"msgType\":400}"); }},
    {"registration refused", open, [] { deliver("{\"msgType\":700,\"code\":\"c\",\"message\":\"m\"}"); }},
    {"half a message", open, [] { walk_serve([] { fake_receive(fake_handle(), "{\"msgType\"", 10); }); }},
    {"SIGUSR1", always, [] { strike(SIGUSR1); }},
    {"SIGHUP", always, [] { strike(SIGHUP); }},
    {"the controller's address changes", always,
     [] { close_for_config_change("DEV_CFG_UPDATE", strlen("DEV_CFG_UPDATE")); }},
    {"close before a reboot", always, [] { close_websocket(); }},
    {"a message to the controller", always, [] { write_to_orv("traffic", 7, 0); }},
    {"the parent MAC is found", always, [] { pmac_discovery_complete = 1; }},
    {"discovery fails from now on", always, fail_discovery},
    {"discovery finds no URL from now on", always, [] { neighbours.orv_url = nullptr; }},
    {"the name is unknown from now on", always, [] { neighbours.orv_url = "https://unknown.example/"; }},
    {"SIGUSR1 in the next discovery", always, strike_during_discovery},
    {"connect calls fail from now on", always, [] { library.refuses_connection = true; }},
    {"connect calls fail with a reason from now on", always,
     [] { library.refuses_connection = library.reports_error_in_connect = true; }},
    {"the controller answers close frames, or no more", always,
     [] { walk_controller_closes = !walk_controller_closes; }},
    {"everything works again", always, walk_reset},
    {"the device was reconfigured", always, [] { write_file(DEVICE_RECONFIGURED_FILE, ""); }},
};

/* ---- where it begins ---- */

static void wait_until(const std::function<bool()> &condition)
{
    EXPECT_TRUE(run_until(condition, 1000)) << "the situation was not reached";
}

static void connecting(void)
{
    da_enter_state(DA_STATE_IDLE);
    wait_until([] { return da.state == DA_STATE_CONNECTING; });
}

static void unregistered(bool parent_mac_known)
{
    pmac_discovery_complete = parent_mac_known ? 1 : 0;
    connecting();
    established();
    drain();
}

static void registered(void)
{
    unregistered(true);
    deliver("{\"msgType\":400}");
}

static void waiting_for_the_closure(void)
{
    registered();
    wait_until([] { return ws.destroy_pending == 1; });
}

const std::vector<walk_situation> walk_situations = {
    {"idle", [] { da_enter_state(DA_STATE_IDLE); }},
    {"idle for minutes",
     [] {
         idle_timeout = 300;
         da_enter_state(DA_STATE_IDLE);
     }},
    {"connecting", connecting},
    {"waiting for reconnect",
     [] {
         connecting();
         refused();
     }},
    {"the last wait for reconnect",
     [] {
         library.refuses_connection = true;
         connecting();
         wait_until([] { return ws.reconnect_attempts == 3; });
         library.refuses_connection = false;
     }},
    {"waiting for the parent MAC", [] { unregistered(false); }},
    {"waiting for the answer", [] { unregistered(true); }},
    {"without an answer",
     [] {
         unregistered(true);
         wait_until([] { return da.register_sent == 0; });
     }},
    {"refused",
     [] {
         unregistered(true);
         deliver("{\"msgType\":700,\"code\":\"c\",\"message\":\"m\"}");
     }},
    {"registered", registered},
    {"a close frame went out", waiting_for_the_closure},
    {"the context is gone",
     [] {
         waiting_for_the_closure();
         wait_until([] { return ws.context == nullptr; });
     }},
    {"leaving for another controller",
     [] {
         registered();
         close_for_config_change("DEV_CFG_UPDATE", strlen("DEV_CFG_UPDATE"));
     }},
    {"another controller while connecting",
     [] {
         connecting();
         close_for_config_change("DEV_CFG_UPDATE", strlen("DEV_CFG_UPDATE"));
     }},
};
