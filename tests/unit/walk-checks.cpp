#include "tests/unit/walk.h"

#include <algorithm>
#include <set>

#include "tests/unit/connection-test.h"

/* ---- timers ---- */

using name_set = std::set<std::string>;

/* Where a timer may run: one that belongs to a connection only as long as that connection is there. */
static const name_set of_idle = {"DISCOVERY DELAY"};
static const name_set of_connecting = {"LWS CONNECTING", "WAIT FOR RECONNECT"};
static const name_set of_connected = {
    "PING",       "PMAC",         "REGISTER", "REGISTER RESPONSE WAIT", "REGISTER DELAY", "REGISTER FAILED",
    "WS DESTROY", "DA DISCONNECT"};
static const name_set of_all = {"LWS SERVICE",          "CLOSE RETRY",  "CONFIG RESTORE",   "STATUS NOTIFY",
                                "CLEAR ACTION PENDING", "REBOOT DELAY", "CLOSE FRAME DELAY"};

static const name_set &timers_of_state(void)
{
    static const name_set none;
    switch (da.state) {
    case DA_STATE_IDLE: return of_idle;
    case DA_STATE_CONNECTING: return of_connecting;
    case DA_STATE_CONNECTED: return of_connected;
    default: return none;
    }
}

/* The timers that run, in order; a second one of a name is told in `wrong`. */
static name_set running_timers(std::string *wrong)
{
    name_set names;
    for (int i = 0; i < ev_count_timers(); i++) {
        std::string name = static_cast<const char *>(ev_timer_argument(i));
        if (!names.insert(name).second)
            *wrong = "two timers \"" + name + "\"";
    }
    return names;
}

static bool runs(const name_set &timers, const char *name) { return timers.count(name) > 0; }

/* What will move the agent on, when nothing comes from outside. */
static bool will_move_on(const name_set &timers)
{
    switch (da.state) {
    case DA_STATE_IDLE: return runs(timers, "DISCOVERY DELAY");
    case DA_STATE_CONNECTING:
        return (runs(timers, "LWS CONNECTING") && ws.wsi) || runs(timers, "WAIT FOR RECONNECT");
    case DA_STATE_CONNECTED:
        return runs(timers, "PING") || runs(timers, "WS DESTROY") || runs(timers, "DA DISCONNECT");
    default: return false;
    }
}

static std::string wrong_timers(void)
{
    std::string wrong;
    name_set timers = running_timers(&wrong);
    for (const std::string &name : timers)
        if (!timers_of_state().count(name) && !of_all.count(name))
            wrong = "\"" + name + "\" runs";
    if (wrong.empty() && !will_move_on(timers))
        wrong = "no timer will move it on";
    if (wrong.empty() && runs(timers, "LWS CONNECTING") && runs(timers, "WAIT FOR RECONNECT"))
        wrong = "it connects and waits for the reconnect";
    if (wrong.empty() && ws.wsi && (!ws.established || ws.closing) && !runs(timers, "LWS SERVICE"))
        wrong = "nobody serves the library";
    return wrong;
}

/* ---- the connection ---- */

static std::string wrong_connection(void)
{
    if (fake_live_handles() > 1)
        return std::to_string(fake_live_handles()) + " connections";
    if (fake_live_handles() == 1 && fake_handle() != ws.wsi)
        return "a connection that the agent does not know";
    if (ws.wsi && fake_live_handles() == 0)
        return "a handle of a connection that is gone";
    if (ws.websock_fd != (ws.wsi ? fake_descriptor(ws.wsi) : -1))
        return "the descriptor is not the connection's";
    if (ev_count_fds() != (ws.wsi ? 1 : 0))
        return std::to_string(ev_count_fds()) + " descriptors are watched";
    if (ws.wsi && ev_watched(ws.websock_fd) == 0)
        return "the connection is not watched";
    if (da.state != DA_STATE_CONNECTED && (da.registered || da.register_sent || txq))
        return "something of a connection without one";
    return "";
}

std::string walk_wrong(void)
{
    std::string wrong = wrong_connection();
    if (wrong.empty())
        wrong = wrong_timers();
    return wrong.empty() ? wrong : wrong + " in state " + std::to_string(da.state);
}

/* ---- a good controller ---- */

static bool lasts(void)
{
    return da.state == DA_STATE_CONNECTED && da.registered && ws.established && !ws.closing &&
           !ws.close_pending && !ws.destroy_pending;
}

static void answer(const fake_frame &frame)
{
    if (frame.mode == LWS_WRITE_PING)
        fake_report(fake_handle(), LWS_CALLBACK_CLIENT_RECEIVE_PONG);
    else if (frame.payload.rfind("{\"msgType\": 100,", 0) == 0)
        fake_receive(fake_handle(), "{\"msgType\":400}");
}

/* One turn of its side: the handshake, an answer to each frame that came, the closure. */
static void serve_well(void)
{
    lws *handle = fake_handle();
    if (!handle || handle != ws.wsi)
        return;
    if (!fake_is_established(handle)) {
        walk_serve([] { fake_established(fake_handle()); });
    } else if (fake_is_closing(handle)) {
        if (walk_controller_closes)
            walk_serve([] { fake_closed(fake_handle()); });
    } else {
        std::vector<fake_frame> frames;
        frames.swap(library.wire);
        for (const fake_frame &frame : frames)
            if (fake_handle() == handle)
                walk_serve([frame] { answer(frame); });
    }
}

int walk_seconds_until_registered(int limit, std::string *wrong)
{
    int64_t start = fake_clock_now();
    int64_t end = start + limit * int64_t{1000000};
    library.wire.clear();
    neighbours.pmac_complete_at_search = neighbours.pmac_searches + 2;
    for (int passes = 0; passes < 5000 && fake_clock_now() <= end; passes++) {
        if (lasts())
            return static_cast<int>((fake_clock_now() - start) / 1000000);
        ws.connect_attempts = 0; /* the time-outs before count for the end of the process only */
        serve_well();
        ev_main();
        if (neighbours.pmac_searches > neighbours.pmac_complete_at_search)
            neighbours.pmac_complete_at_search = neighbours.pmac_searches + 2;
        *wrong = walk_wrong();
        if (!wrong->empty())
            return -1;
    }
    return -1;
}
