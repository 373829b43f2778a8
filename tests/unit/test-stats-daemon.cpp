#include "stats/stats-daemon.h"

#include <chrono>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include "tests/unit/stats-daemon-test.h"

static bool read_well(void) { return was_logged("Stats read successfully cleanup g_scm_fd"); }

/* ---- the request ---- */

TEST_F(stats_daemon_test, the_request_is_exact)
{
    EXPECT_EQ(ask("{\"stats\": [{\"fields\": [\"uptime\", \"a-name-of-twenty-ch\"], "
                  "\"tables\": {\"radio\": [\"channel\", \"noise\"], \"100%%\": [\"x\"]}}]}"),
              0);
    EXPECT_EQ(daemon_request(), "{\"mType\": \"STATS-GET\", \"stats-type\": \"orv-stats\", \"index\": 0, "
                                "\"periodic\": 0, \"fields\": [\"uptime\", \"a-name-of-twent\"], "
                                "\"tables\": [\"radio\", \"100%\"]}");
}

TEST_F(stats_daemon_test, without_a_list_of_requests_the_lists_are_empty)
{
    EXPECT_EQ(ask("{}"), 0);
    EXPECT_EQ(daemon_request(), "{\"mType\": \"STATS-GET\", \"stats-type\": \"orv-stats\", \"index\": 0, "
                                "\"periodic\": 0, \"fields\": [], \"tables\": []}");
}

struct kind_row {
    stats_kind kind;
    const char *request;
    int periodic;
};

TEST_F(stats_daemon_test, each_kind_of_report_has_its_number)
{
    static const kind_row rows[] = {
        {STATS_ON_DEMAND, "{}", 0},
        {STATS_DEVICE_INFO, "{\"subType\": 241}", 255},
        {STATS_CUSTOM, "{}", 240},
        {STATS_CUSTOM, "{\"subType\": 254}", 254},
        {STATS_CUSTOM, "{\"subType\": 7}", 7},
        {STATS_CUSTOM, "{\"subType\": \"7\"}", 240},
        {STATS_CUSTOM, "{\"subType\": 99999999999}", 2147483647},
    };
    for (const kind_row &row : rows) {
        EXPECT_EQ(ask(row.request, row.kind), 0);
        std::string request = daemon_request();
        EXPECT_NE(request.find("\"periodic\": " + std::to_string(row.periodic) + ","), std::string::npos)
            << request;
    }
    EXPECT_TRUE(was_logged("parse_build_on_demand_stats: CUSTOM_INFO (2) requested subtype 254"));
}

/* ---- the report ---- */

struct report_row {
    int periodic;
    const char *message;
};

TEST_F(stats_daemon_test, the_report_depends_on_the_kind_that_the_daemon_echoes)
{
    static const report_row rows[] = {
        {1, "{\"msgType\": 403, \"index\": 3, \"sessId\": 42, \"ts\": 0, \"stats\": {\"z\": [1], \"a\": 2}}"},
        {0, "{\"msgType\": 404, \"sessId\": 42, \"ts\": 0, \"stats\": {\"z\": [1], \"a\": 2}}"},
        {7, "{\"msgType\": 404, \"sessId\": 42, \"ts\": 0, \"stats\": {\"z\": [1], \"a\": 2}}"},
        {239, "{\"msgType\": 404, \"sessId\": 42, \"ts\": 0, \"stats\": {\"z\": [1], \"a\": 2}}"},
        {240, "{\"msgType\": 424, \"subType\": 240, \"sessId\": 42, \"ts\": 0, \"stats\": {\"z\": [1], "
              "\"a\": 2}}"},
        {254, "{\"msgType\": 424, \"subType\": 254, \"sessId\": 42, \"ts\": 0, \"stats\": {\"z\": [1], "
              "\"a\": 2}}"},
        {255, "{\"msgType\": 422, \"sessId\": 42, \"ts\": 0, \"stats\": {\"z\": [1], \"a\": 2}}"},
        {256, "{\"msgType\": 404, \"sessId\": 42, \"ts\": 0, \"stats\": {\"z\": [1], \"a\": 2}}"},
        {-1, "{\"msgType\": 404, \"sessId\": 42, \"ts\": 0, \"stats\": {\"z\": [1], \"a\": 2}}"},
    };
    for (const report_row &row : rows) {
        EXPECT_EQ(ask("{}"), 0);
        EXPECT_NE(daemon_request(), "");
        daemon_answer("{\"periodic\": " + std::to_string(row.periodic) +
                      ", \"index\": 3, \"stats_result\": {\"z\": [1], \"a\": 2}}");
        serve();
        EXPECT_EQ(report(), row.message);
        EXPECT_TRUE(daemon_was_left());
    }
    EXPECT_TRUE(was_logged("send_stats_to_orv: CUSTOM_INFO ready, periodic 240"));
    EXPECT_TRUE(was_logged("Stats read successfully cleanup g_scm_fd"));
}

TEST_F(stats_daemon_test, statistics_of_any_kind_pass_unchanged)
{
    for (const char *stats :
         {"[]", "\"text \\u00e9\"", "null", "-9223372036854775808", "1.5", "{\"\": {}}"}) {
        EXPECT_EQ(ask("{}"), 0);
        EXPECT_NE(daemon_request(), "");
        daemon_answer(std::string("{\"stats_result\": ") + stats + ", \"index\": 0, \"periodic\": 0}");
        serve();
        json_ptr sent(json_loads(report().c_str(), 0, nullptr)),
            expected(json_loads(stats, JSON_DECODE_ANY, nullptr));
        EXPECT_TRUE(json_equal(json_object_get(sent.get(), "stats"), expected.get())) << stats;
    }
}

TEST_F(stats_daemon_test, a_nul_behind_the_answer_or_inside_a_text_loses_nothing)
{
    EXPECT_EQ(ask("{}"), 0);
    EXPECT_NE(daemon_request(), "");
    std::string text = "{\"periodic\": 0, \"index\": 0, \"stats_result\": \"a\\u0000b\"}";
    daemon_answer(text + '\0');
    serve();
    EXPECT_EQ(report(), "{\"msgType\": 404, \"sessId\": 42, \"ts\": 0, \"stats\": \"a\\u0000b\"}");
}

TEST_F(stats_daemon_test, reports_need_no_registration)
{
    da.registered = 0;
    malloc_text text = stats_report(json_ptr(json_integer(5)), 0, 0, 42);
    EXPECT_EQ(send_stats_to_orv(text, 0), 0);
    EXPECT_EQ(report(), "{\"msgType\": 404, \"sessId\": 42, \"ts\": 0, \"stats\": 5}");
    da.state = DA_STATE_IDLE;
    EXPECT_EQ(send_stats_to_orv(text, 0), -1);
    da.state = DA_STATE_CONNECTED;
}

/* ---- what goes wrong ---- */

TEST_F(stats_daemon_test, an_answer_may_come_in_pieces)
{
    EXPECT_EQ(ask("{}"), 0);
    EXPECT_NE(daemon_request(), "");
    std::string text = "{\"periodic\": 0, \"index\": 0, \"stats_result\": 1}";
    std::string bytes = frame_header(static_cast<unsigned>(text.size())) + text;
    for (char byte : bytes) {
        EXPECT_EQ(txq, nullptr);
        daemon_send(std::string(1, byte));
        serve();
    }
    EXPECT_EQ(report(), "{\"msgType\": 404, \"sessId\": 42, \"ts\": 0, \"stats\": 1}");
    EXPECT_EQ(ev_count_timers(), 0);
}

TEST_F(stats_daemon_test, requests_share_the_connection_and_the_first_answer_closes_it)
{
    EXPECT_EQ(ask("{}"), 0);
    EXPECT_EQ(ask("{}", STATS_DEVICE_INFO), 0);
    EXPECT_NE(daemon_request(), "");
    EXPECT_NE(daemon_request(), "");
    EXPECT_EQ(daemon_connections(), 1);
    std::string answer = "{\"periodic\": 0, \"index\": 0, \"stats_result\": 1}";
    std::string frame = frame_header(static_cast<unsigned>(answer.size())) + answer;
    daemon_send(frame + frame);
    serve();
    EXPECT_EQ(report(), "{\"msgType\": 404, \"sessId\": 42, \"ts\": 0, \"stats\": 1}") << "one report";
    EXPECT_EQ(ask("{}"), 0);
    EXPECT_NE(daemon_request(), "");
    EXPECT_EQ(daemon_connections(), 2);
}

TEST_F(stats_daemon_test, an_answer_that_is_no_json_is_dropped_and_the_connection_stays)
{
    EXPECT_EQ(ask("{}"), 0);
    EXPECT_NE(daemon_request(), "");
    for (const char *text : {"hello", "", "{\"periodic\": 0", "[1]", "5", "{\"a\": \"\xFF\"}"}) {
        clear_log();
        daemon_answer(text);
        serve();
        EXPECT_TRUE(was_logged("Failed to load json")) << text;
        EXPECT_EQ(txq, nullptr) << text;
        EXPECT_FALSE(daemon_was_left()) << text;
    }
    daemon_answer("{\"periodic\": 0, \"index\": 0, \"stats_result\": 1}");
    serve();
    EXPECT_EQ(report(), "{\"msgType\": 404, \"sessId\": 42, \"ts\": 0, \"stats\": 1}");
}

TEST_F(stats_daemon_test, a_length_that_lies_closes_the_connection)
{
    for (unsigned length : {4u * 1024 * 1024 + 1, 0x80000000u, 0xFFFFFFFFu}) {
        clear_log();
        EXPECT_EQ(ask("{}"), 0);
        EXPECT_NE(daemon_request(), "");
        daemon_send(frame_header(length) + "{");
        serve();
        EXPECT_TRUE(was_logged("Failed read scm stats")) << length;
        EXPECT_TRUE(daemon_was_left()) << length;
        EXPECT_EQ(ev_count_fds(), 0) << length;
    }
}

TEST_F(stats_daemon_test, a_daemon_that_dies_in_mid_answer_costs_the_report)
{
    EXPECT_EQ(ask("{}"), 0);
    EXPECT_NE(daemon_request(), "");
    daemon_send(frame_header(100) + "{\"periodic\"");
    serve();
    daemon_die();
    serve();
    EXPECT_TRUE(was_logged("Failed read scm stats"));
    EXPECT_EQ(ev_count_fds(), 0);
    EXPECT_EQ(ev_count_timers(), 0);
    daemon_listen();
    EXPECT_EQ(ask("{}"), 0);
    EXPECT_NE(daemon_request(), "");
}

TEST_F(stats_daemon_test, an_answer_that_stalls_is_given_up)
{
    EXPECT_EQ(ask("{}"), 0);
    EXPECT_NE(daemon_request(), "");
    daemon_send(frame_header(100) + "{\"periodic\"");
    int waited = seconds_until([] { return was_logged("Failed read scm stats"); });
    EXPECT_TRUE(waited >= 9 && waited <= 13) << waited;
    EXPECT_TRUE(daemon_was_left());
}

TEST_F(stats_daemon_test, a_daemon_without_an_answer_keeps_nothing_waiting)
{
    EXPECT_EQ(ask("{}"), 0);
    EXPECT_NE(daemon_request(), "");
    serve();
    EXPECT_EQ(ev_count_timers(), 0);
    EXPECT_EQ(ev_count_fds(), 1);
}

TEST_F(stats_daemon_test, a_refused_connection_costs_this_report_and_the_next)
{
    daemon_die();
    EXPECT_EQ(platform_build_and_send_stats(0, 0), -1);
    daemon_listen();
    EXPECT_EQ(platform_build_and_send_stats(0, 0), -1) << "finds the refused descriptor and closes it";
    EXPECT_EQ(platform_build_and_send_stats(0, 0), 0);
    EXPECT_NE(daemon_request(), "");
}

TEST_F(stats_daemon_test, a_daemon_that_does_not_read_holds_nothing_up)
{
    fake_clock_is_real = true;
    auto longest = std::chrono::steady_clock::duration::zero();
    bool failed = false;
    for (int i = 0; i < 20000 && !failed; i++) {
        auto begin = std::chrono::steady_clock::now();
        failed = platform_build_and_send_stats(0, 0) != 0;
        longest = std::max(longest, std::chrono::steady_clock::now() - begin);
    }
    fake_clock_is_real = false;
    EXPECT_TRUE(failed) << "the socket's buffer is full at last";
    EXPECT_LT(longest, std::chrono::milliseconds(300)) << "a bound of 40 ms, and a busy machine";
    EXPECT_EQ(ev_count_fds(), 0);
}

TEST_F(stats_daemon_test, without_a_free_descriptor_nothing_is_sent_that_nobody_reads)
{
    struct rlimit before = {};
    getrlimit(RLIMIT_NOFILE, &before);
    struct rlimit more = {2 * EV_FD_LIMIT, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &more), 0);
    std::vector<int> taken;
    while (taken.empty() || taken.back() < EV_FD_LIMIT)
        taken.push_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(platform_build_and_send_stats(0, 0), -1) << "select cannot hold the descriptor";
    EXPECT_EQ(daemon_request(), "");
    for (int fd : taken)
        close(fd);
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(platform_build_and_send_stats(0, 0), 0);
    EXPECT_NE(daemon_request(), "");
    daemon_answer("{\"periodic\": 0, \"index\": 0, \"stats_result\": 1}");
    serve();
    EXPECT_TRUE(read_well());
}
