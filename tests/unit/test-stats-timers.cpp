#include "stats/stats-timers.h"

#include <string>

#include "agent/owners.h"
#include "protocol/error-codes.h"
#include "stats/stats-daemon.h"
#include "stats/stats-json-parse.h"
#include "tests/unit/connection-test.h"
#include "tests/unit/fake-stats-daemon.h"

class stats_timers_test : public connection_test {
protected:
    void SetUp() override
    {
        connection_test::SetUp();
        da.state = DA_STATE_CONNECTED;
        daemon_listen();
    }
    void TearDown() override
    {
        for (stats_slot &slot : g_stats_info) {
            stop_stats_timer(&slot);
            slot = stats_slot();
        }
        stats_daemon_reset();
        daemon_die();
        da.state = DA_STATE_IDLE;
        connection_test::TearDown();
    }
};

static void subscribe(int index, int interval)
{
    std::string text = "{\"stats\": [{\"index\": " + std::to_string(index) +
                       ", \"interval\": " + std::to_string(interval) + ", \"fields\": [\"uptime\"]}]}";
    json_ptr obj(json_loads(text.c_str(), 0, nullptr));
    EXPECT_EQ(parse_stats_request(obj.get(), error_string), 0);
}

static int stop(const char *text)
{
    json_ptr obj(json_loads(text, 0, nullptr));
    return stop_stats_request(obj.get(), error_string);
}

TEST_F(stats_timers_test, a_report_is_asked_for_at_every_expiry)
{
    subscribe(3, 30);
    for (int i = 0; i < 3; i++) {
        int waited = seconds_until(daemon_was_asked);
        EXPECT_TRUE(waited >= 29 && waited <= 33) << waited;
        EXPECT_NE(daemon_request(), "");
        EXPECT_EQ(ev_count_timers(), 1);
    }
    EXPECT_TRUE(was_logged("dispatch stat blocks"));
}

TEST_F(stats_timers_test, the_request_tells_slot_and_kind)
{
    subscribe(5, 10);
    EXPECT_NE(seconds_until(daemon_was_asked), -1);
    EXPECT_EQ(daemon_request(),
              "{\"mType\": \"STATS-GET\", \"stats-type\": \"orv-stats\", \"index\": 5, \"periodic\": 1, "
              "\"fields\": [\"uptime\"], \"tables\": []}");
}

TEST_F(stats_timers_test, a_daemon_that_cannot_be_reached_costs_one_report)
{
    subscribe(3, 30);
    daemon_die();
    EXPECT_NE(seconds_until([] { return was_logged("Failed to send stats, ret=-1"); }), -1);
    EXPECT_EQ(ev_count_timers(), 1);
    daemon_listen();
    EXPECT_NE(seconds_until(daemon_was_asked), -1);
}

TEST_F(stats_timers_test, a_stopped_slot_fires_once_more_and_lapses)
{
    subscribe(3, 30);
    EXPECT_EQ(stop("{\"index\": 3}"), 0);
    EXPECT_TRUE(was_logged("Received periodic stats stop request t_index=3"));
    EXPECT_EQ(g_stats_info[3].request, nullptr);
    EXPECT_EQ(ev_count_timers(), 1) << "the timer is left armed";
    EXPECT_NE(seconds_until([] {
                  return was_logged("Stats request NOT active anymore disable recurrance of t_index=3");
              }),
              -1);
    EXPECT_EQ(ev_count_timers(), 0);
    EXPECT_FALSE(daemon_was_asked());
}

TEST_F(stats_timers_test, a_slot_stopped_and_asked_for_again_has_one_timer)
{
    subscribe(3, 30);
    stop("{\"index\": 3}");
    subscribe(3, 50);
    EXPECT_EQ(ev_count_timers(), 1);
    int waited = seconds_until(daemon_was_asked);
    EXPECT_TRUE(waited >= 49 && waited <= 53) << waited;
}

struct stop_row {
    const char *request;
    int status;
    const char *line;
};

TEST_F(stats_timers_test, stop_requests)
{
    static const stop_row rows[] = {
        {"{}", 0, "Received periodic stats stop request t_index=0"},
        {"{\"index\": \"5\"}", 0, "Received periodic stats stop request t_index=0"},
        {"{\"index\": 1}", 0, "Received periodic stats stop request t_index=1"},
        {"{\"index\": 7}", 0, "Received periodic stats stop request t_index=7"},
        {"{\"index\": 8}", 1, "Received stop stats request with invalid index 8"},
        {"{\"index\": 4294967298}", 1, "Received stop stats request with invalid index 2147483647"},
        {"{\"index\": -1}", 1, "Received stop stats request with invalid index -1"},
    };
    for (const stop_row &row : rows) {
        EXPECT_EQ(stop(row.request), row.status) << row.request;
        EXPECT_TRUE(was_logged(row.line)) << row.request;
    }
    EXPECT_STREQ(error_string, "Received stop stats request with invalid index");
    EXPECT_EQ(stop_stats_request(nullptr, error_string), 1);
    EXPECT_STREQ(error_string, "Received stop stats request without index");
}

TEST_F(stats_timers_test, without_a_connection_a_slot_lapses)
{
    subscribe(3, 30);
    da.state = DA_STATE_CONNECTING;
    ASSERT_NE(seconds_until([] { return ev_count_timers() == 0; }), -1);
    EXPECT_FALSE(daemon_was_asked());
    EXPECT_EQ(g_stats_info[3].active, 1);
    da.state = DA_STATE_CONNECTED;
    subscribe(3, 30);
    EXPECT_NE(seconds_until(daemon_was_asked), -1) << "the controller asks again";
}

TEST_F(stats_timers_test, a_connection_that_comes_up_or_goes_down_ends_all)
{
    da.state = DA_STATE_IDLE;
    connect_agent();
    subscribe(2, 30);
    subscribe(7, 30);
    int timers = ev_count_timers();
    hooks.cancel_periodic_stats();
    EXPECT_EQ(ev_count_timers(), timers - 2);
    for (int index : {2, 7}) {
        EXPECT_EQ(g_stats_info[index].active, 0);
        EXPECT_EQ(g_stats_info[index].request, nullptr);
        EXPECT_TRUE(times_logged_beginning("Cancelling pstats timer t_index=" + std::to_string(index)) == 1);
    }
    subscribe(2, 30);
    da_enter_state(DA_STATE_DISCONNECTED);
    EXPECT_EQ(g_stats_info[2].timer, nullptr);
}

TEST_F(stats_timers_test, slots_without_a_timer_are_left_alone)
{
    subscribe(3, 30);
    stop_stats_timer(&g_stats_info[3]);
    cancel_stats_timers();
    EXPECT_EQ(g_stats_info[3].active, 1);
    EXPECT_NE(g_stats_info[3].request, nullptr);
}
