#include "tests/unit/connection-test.h"

#include <cstring>

#include <unistd.h>

#include "operations/config-reboot.h"
#include "operations/sw-upgrade.h"
#include "operations/tech-support.h"
#include "protocol/directives.h"

/* Every file that a test of the connection may find or leave. */
static const char *const files[] = {
    ORV_STATE_FILE,          DEVICE_RECONFIGURED_FILE, LAST_CLOSE_REASON_FILE,
    LAST_REBOOT_REASON_FILE, "/tmp/session_id",
};

/*
 * Timers are stopped by their owners: a handle that is merely forgotten could later be taken for another
 * timer in the same place.
 */
static void stop_everything(void)
{
    ws_forget_leftovers();
    cancel_registration();
    cancel_reconnect_timer();
    clear_log();
    timer_disarm(discovery_timer);
    stop_cfg_restore_timer();
    connection_status_reset();
    config_change_reset();
    config_reboot_reset();
    directives_reset();
    sw_upgrade_reset();
    tech_support_reset();
    if (ws.context)
        ws_destroy_context();
    ws_session_reset();
    ev_reset();
}

void connection_test::SetUp()
{
    fake_clock_set(1000);
    fake_lws_reset();
    neighbours = fake_neighbours();
    for (const char *file : files)
        (void)unlink(file);
    write_file("/mnt/flash/config/present", "");
    fresh_agent();
    install_hooks();
    gPid = 4711;
    snprintf(da.dev_info.eth_mac_addr, sizeof(da.dev_info.eth_mac_addr), "02:4F:56:00:00:01");
}

void connection_test::TearDown()
{
    stop_everything();
    EXPECT_EQ(ev_count_timers(), 0);
    EXPECT_EQ(ev_count_fds(), 0);
    fake_lws_reset();
}

void begin_connecting(void)
{
    snprintf(ws_target.host, sizeof(ws_target.host), "127.0.0.1");
    ws_target.port = 8443;
    snprintf(ws_target.path, sizeof(ws_target.path), "/ws?mac=02:4F:56:00:00:01");
    da_enter_state(DA_STATE_CONNECTING);
}

void connect_agent(bool parent_mac_known)
{
    pmac_discovery_complete = parent_mac_known ? 1 : 0;
    begin_connecting();
    in_library([] { fake_established(fake_handle()); });
    ASSERT_EQ(da.state, DA_STATE_CONNECTED);
}

void in_library(const std::function<void()> &act)
{
    library.script.push_back(act);
    ws_fd_event_cb(ws.websock_fd, EV_READ, ws.context);
}

void drain(void)
{
    for (int passes = 0; txq && passes < 10000; passes++)
        ev_main();
    ASSERT_EQ(txq, nullptr) << "frames stayed in the queue";
}

static std::string message_of(const std::string &line)
{
    size_t colon = line.find(':');
    return colon == std::string::npos ? line : line.substr(colon + 1);
}

int times_logged_beginning(const std::string &beginning)
{
    int count = 0;
    for (const std::string &line : logged())
        count += message_of(line).compare(0, beginning.size(), beginning) == 0 ? 1 : 0;
    return count;
}

bool was_logged_beginning(const std::string &beginning) { return times_logged_beginning(beginning) > 0; }

int logged_number(const std::string &beginning)
{
    int number = -1;
    for (const std::string &line : logged()) {
        std::string message = message_of(line);
        if (message.compare(0, beginning.size(), beginning) == 0)
            number = atoi(message.c_str() + beginning.size());
    }
    return number;
}

int frames_of_mode(int mode)
{
    int count = 0;
    for (const fake_frame &frame : library.wire)
        count += frame.mode == mode ? 1 : 0;
    return count;
}

std::string close_reason_on_wire(void)
{
    std::string reason;
    for (const fake_frame &frame : library.wire)
        if (frame.mode == FAKE_CLOSE_FRAME)
            reason = frame.payload.substr(2);
    return reason;
}

int seconds_until(const std::function<bool()> &condition)
{
    int64_t start = fake_clock_now();
    if (!run_until(condition, 3600))
        return -1;
    return static_cast<int>((fake_clock_now() - start) / 1000000);
}
