#include "agent/start.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <libwebsockets.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include "agent/da.h"
#include "agent/ev.h"
#include "agent/hooks.h"
#include "agent/wiring.h"
#include "platform/address-watch.h"
#include "platform/connection-status.h"
#include "platform/heartbeat.h"
#include "platform/state-files.h"
#include "tests/unit/fake-clock.h"
#include "tests/unit/support.h"

/* ---- neighbours that record ---- */

/* Calls and logged messages, in order. */
static std::vector<std::string> steps;
static int identity_result;
static int log_mask;
static void (*log_hook)(int, const char *);

static void step(const char *what) { steps.push_back(what); }

extern "C" int __wrap__Z22platform_init_dev_infov(void);
extern "C" void __wrap__Z17https_client_initv(void);

extern "C" int __wrap__Z22platform_init_dev_infov(void)
{
    step("platform_init_dev_info");
    return identity_result;
}

extern "C" void __wrap__Z17https_client_initv(void) { step("https_client_init"); }

extern "C" void lws_set_log_level(int mask, void (*hook)(int, const char *))
{
    step("lws_set_log_level");
    log_mask = mask;
    log_hook = hook;
}

/* "2026-01-02 03:04:05 123 module.c:45:message" to "message" */
static void record_line(const char *line)
{
    const char *text = strchr(line, ':');
    for (int colons = 0; text && colons < 3; colons++)
        text = strchr(text + 1, ':');
    if (text)
        step(text + 1);
}

void install_hooks(void)
{
    step("install_hooks");
    hooks.append_logs = record_line;
    hooks.state_entry[DA_STATE_IDLE] = [] { step("enter_idle"); };
    hooks.log_server_init = [] {
        step("log_server_init");
        return -1;
    };
    hooks.platform_event_listener = [] {
        step("platform_event_listener");
        return 0;
    };
    hooks.device_agent_msg_from_wifid_callback_init = [] { step("wifid_callback_init"); };
}

/* ---- helpers ---- */

struct loop_reached {};

/* Starts the agent and comes back from its first wait; what start_device_agent returned when it never got
 * there. */
static int start(int debug_level = 3)
{
    steps.clear();
    fake_wait_interruption = []() -> int64_t { throw loop_reached(); };
    int result = 0;
    try {
        result = start_device_agent(debug_level);
    } catch (const loop_reached &) {
    }
    fake_wait_interruption = nullptr;
    return result;
}

static const char *const files[] = {RESTARTS_FILE, DA_VERSION_FILE, HEARTBEAT_FILE, ORV_STATE_FILE};

class start_test : public testing::Test {
protected:
    static void SetUpTestSuite() { fresh_agent(); }
    void SetUp() override
    {
        fake_clock_set(1000);
        address_watch_reset();
        write_file(DA_VERSION_FILE, "");
        for (const char *file : files)
            (void)unlink(file);
        identity_result = 0;
        hooks = agent_hooks();
        da_reset();
        clear_log();
    }
};

static bool done(const std::string &what)
{
    return std::find(steps.begin(), steps.end(), what) != steps.end();
}

/* ---- the order ---- */

TEST_F(start_test, everything_in_its_order)
{
    start();
    static const char *const expected[] = {
        "install_hooks",
        "Initializing Velmora Device Agent da.debug_level=3",
        "https_client_init",
        "Device-agent version [2.78]",
        "platform_init_dev_info",
        "platform_set_orv_connection_state: New Connection_state Not Connected(0)",
        "start_device_agent: Device mode []",
        "Initializing da.state to [0]",
        "Device-agent started (0)",
        "lws_set_log_level",
        "log_server_init",
        "platform_event_listener",
        "enter_idle",
        "wifid_callback_init",
    };
    auto at = steps.begin();
    for (const char *what : expected) {
        at = std::find(at, steps.end(), what);
        ASSERT_NE(at, steps.end()) << what << " is missing or out of order";
        ++at;
    }
    EXPECT_EQ(std::count(steps.begin(), steps.end(), "enter_idle"), 1);
    EXPECT_EQ(da.state, DA_STATE_IDLE);
    EXPECT_EQ(ev_count_timers(), 2) << "DA ALIVE and AGGRESSIVE MODE";
}

TEST_F(start_test, the_status_says_not_connected)
{
    start();
    EXPECT_EQ(file_text(ORV_STATE_FILE), "Not Connected");
}

TEST_F(start_test, the_librarys_log_is_hooked)
{
    start();
    EXPECT_EQ(log_mask, 29);
    EXPECT_NE(log_hook, nullptr);
}

TEST_F(start_test, an_identity_that_cannot_be_had_ends_the_start)
{
    identity_result = -1;
    EXPECT_EQ(start(), -1);
    EXPECT_TRUE(was_logged("init_device_agent: Failed to initialize dev_info"));
    EXPECT_TRUE(was_logged("Failed to initialize device agent "));
    EXPECT_FALSE(done("enter_idle"));
    EXPECT_FALSE(done("log_server_init"));
    EXPECT_FALSE(path_exists(RESTARTS_FILE));
    EXPECT_FALSE(path_exists(HEARTBEAT_FILE));
}

/* ---- the record ---- */

TEST_F(start_test, the_record_has_its_defaults)
{
    memset(&da, 0x5A, sizeof(da));
    idle_timeout = 300;
    aggressive_mode = 0;
    gPid = 0;
    start(2);
    EXPECT_EQ(da.discovery_method, 0);
    EXPECT_EQ(da.reconnect_wait, 300);
    EXPECT_EQ(da.reconnect_delta, 60);
    EXPECT_EQ(da.debug_level, 2);
    EXPECT_EQ(da.registered, 0);
    EXPECT_EQ(da.register_sent, 0);
    EXPECT_EQ(da.connect_count, 0);
    EXPECT_EQ(da.dhcp15_allowed, 0);
    EXPECT_EQ(da.dhcp43_allowed, 0);
    EXPECT_EQ(da.mgmt_flag, 0);
    EXPECT_EQ(da.auto_reboot, 0);
    EXPECT_STREQ(da.deviceId, "");
    EXPECT_STREQ(da.orv_url, "");
    EXPECT_STREQ(da.dev_info.serial_number, "");
    EXPECT_STREQ(da.dev_info.hw_expiry_date, "");
    EXPECT_EQ(idle_timeout, 5);
    EXPECT_EQ(aggressive_mode, 1);
    EXPECT_EQ(gPid, getpid());
}

TEST_F(start_test, a_log_level_of_7_is_taken_as_it_is)
{
    start(7);
    EXPECT_EQ(da.debug_level, 7);
    EXPECT_TRUE(was_logged("Initializing Velmora Device Agent da.debug_level=7"));
}

TEST_F(start_test, the_device_id_stands_directly_behind_the_url) { EXPECT_EQ(da.deviceId, da.orv_url + 257); }

/* ---- files ---- */

struct restart_row {
    const char *before, *logged, *after;
};

TEST_F(start_test, starts_are_counted)
{
    static const restart_row rows[] = {
        {nullptr, "Device-agent started (0)", "1"},
        {"1", "Device-agent started (1)", "2"},
        {"12\n", "Device-agent started (12)", "13"},
        {"", "Device-agent started (0)", "1"},
        {"nonsense", "Device-agent started (0)", "1"},
        {"2147483647", "Device-agent started (2147483647)", "2147483648"},
        {"00000000000000099", "Device-agent started (0)", "1"}, /* fifteen bytes are read */
    };
    for (const restart_row &row : rows) {
        (void)unlink(RESTARTS_FILE);
        clear_log();
        if (row.before)
            write_file(RESTARTS_FILE, row.before);
        start();
        EXPECT_TRUE(was_logged(row.logged)) << row.logged;
        EXPECT_EQ(file_text(RESTARTS_FILE), row.after);
    }
}

TEST_F(start_test, a_second_start_counts_two)
{
    start();
    clear_log();
    start();
    EXPECT_TRUE(was_logged("Device-agent started (1)"));
    EXPECT_EQ(file_text(RESTARTS_FILE), "2");
}

TEST_F(start_test, the_version_file_holds_four_bytes)
{
    start();
    EXPECT_EQ(file_text(DA_VERSION_FILE), "2.78");
    write_file(DA_VERSION_FILE, "an older and longer version\n");
    start();
    EXPECT_EQ(file_text(DA_VERSION_FILE), "2.78");
}

static struct stat heartbeat(void)
{
    struct stat status = {};
    EXPECT_EQ(stat(HEARTBEAT_FILE, &status), 0);
    return status;
}

TEST_F(start_test, the_heartbeat_file_is_private_and_empty)
{
    start();
    EXPECT_EQ(heartbeat().st_mode & 07777, 0600u);
    EXPECT_EQ(heartbeat().st_size, 0);
}

/* A link laid there must not lead to another file. */
TEST_F(start_test, the_heartbeat_file_is_not_made_through_a_link)
{
    ASSERT_EQ(symlink("/tmp/heartbeat-target", HEARTBEAT_FILE), 0);
    start();
    EXPECT_FALSE(path_exists("/tmp/heartbeat-target"));
}

/* ---- timers ---- */

static void age_heartbeat(void)
{
    struct timeval long_ago[2] = {{1000, 0}, {1000, 0}};
    utimes(HEARTBEAT_FILE, long_ago);
}

TEST_F(start_test, the_heartbeat_is_touched_every_60_seconds)
{
    start();
    for (int i = 0; i < 3; i++) {
        age_heartbeat();
        clear_log();
        int64_t begin = fake_clock_now();
        EXPECT_TRUE(run_until([] { return heartbeat().st_mtime > 1000; }, 100));
        int64_t took = (fake_clock_now() - begin) / 1000000;
        EXPECT_GE(took, 60);
        EXPECT_LE(took, 62);
        EXPECT_GE(heartbeat().st_mtime, time(nullptr) - 60);
        EXPECT_TRUE(was_logged("da_alive_cb: Kicking the DA watchdog"));
    }
}

TEST_F(start_test, aggressive_mode_ends_after_900_seconds)
{
    start();
    int64_t begin = fake_clock_now();
    EXPECT_TRUE(run_until([] { return aggressive_mode == 0; }, 1000));
    int64_t took = (fake_clock_now() - begin) / 1000000;
    EXPECT_GE(took, 900);
    EXPECT_LE(took, 903);
    EXPECT_TRUE(was_logged("aggr_mode_timeout_cb: Aggressive mode ended"));
}

/* ---- the controller's address ---- */

/* The target of a link changes: no event tells, the look that goes with the heartbeat does. */
TEST_F(start_test, the_controllers_address_is_watched)
{
    write_file("/etc/velmora/linked", "old.example");
    (void)unlink(DHCP_43_FILE);
    ASSERT_EQ(symlink("/etc/velmora/linked", DHCP_43_FILE), 0);
    start();
    EXPECT_EQ(ev_count_fds(), 1) << "the folders' events";
    hooks.address_changed = [](const char *reason, size_t) { step(reason); };
    char url[URL_TEXT_SIZE];
    EXPECT_EQ(platform_get_dhcp43_url(url), 0);
    write_file("/etc/velmora/linked", "new.example");
    int64_t begin = fake_clock_now();
    EXPECT_TRUE(run_until([] { return done("DEV_CFG_UPDATE"); }, 100));
    int64_t took = (fake_clock_now() - begin) / 1000000;
    EXPECT_GE(took, 62);
    EXPECT_LE(took, 67);
    address_watch_reset();
}

/* ---- the program ---- */

/* Runs the program itself; its standard output, and its raw wait status. */
static std::string run_program(const std::string &options, int *status)
{
    std::filesystem::path here = std::filesystem::read_symlink("/proc/self/exe");
    std::string command = (here.parent_path() / "../../device-agent").string() + " " + options + " 2>&1";
    FILE *pipe = popen(command.c_str(), "r");
    std::string output;
    char buffer[256];
    for (size_t length; (length = fread(buffer, 1, sizeof(buffer), pipe)) > 0;)
        output.append(buffer, length);
    *status = pclose(pipe);
    return output;
}

TEST_F(start_test, the_version_is_printed_and_no_file_touched)
{
    int status = -1;
    EXPECT_EQ(run_program("-v", &status), "2.78\n");
    EXPECT_EQ(status, 0);
    for (const char *file : files)
        EXPECT_FALSE(path_exists(file)) << file;
    EXPECT_FALSE(path_exists("/var/log/device-agent.log"));
}

TEST_F(start_test, help_and_unknown_options_log_the_usage)
{
    for (const char *options : {"-h", "-x", "-d"}) {
        clear_log();
        int status = -1;
        run_program(options, &status);
        EXPECT_EQ(status, 0) << options;
        EXPECT_TRUE(was_logged("Usage: device-agent [-d <log level>] [-h]")) << options;
        EXPECT_EQ(logged().size(), 1u) << options;
        for (const char *file : files)
            EXPECT_FALSE(path_exists(file)) << options << " " << file;
    }
}
