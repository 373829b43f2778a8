#include "stats/stats-json-parse.h"

#include <string>

#include "agent/owners.h"
#include "protocol/dispatcher.h"
#include "protocol/error-codes.h"
#include "stats/stats-daemon.h"
#include "stats/stats-info.h"
#include "stats/stats-timers.h"
#include "tests/unit/connection-test.h"
#include "tests/unit/fake-stats-daemon.h"
#include "tests/unit/queued.h"

class stats_parse_test : public connection_test {
protected:
    void SetUp() override
    {
        connection_test::SetUp();
        da.state = DA_STATE_CONNECTED;
        error_string[0] = '\0';
    }
    void TearDown() override
    {
        for (stats_slot &slot : g_stats_info) {
            stop_stats_timer(&slot);
            slot = stats_slot();
        }
        stats_daemon_reset();
        da.state = DA_STATE_IDLE;
        connection_test::TearDown();
    }
};

static json_ptr json(const std::string &text)
{
    json_ptr obj(json_loads(text.c_str(), 0, nullptr));
    EXPECT_NE(obj, nullptr) << text;
    return obj;
}

static int periodic(const std::string &stats)
{
    return parse_stats_request(json("{\"stats\": " + stats + "}").get(), error_string);
}

static int one_time(const std::string &stats)
{
    return parse_build_on_demand_stats(json("{\"stats\": " + stats + "}").get(), error_string,
                                       STATS_ON_DEMAND);
}

struct refused_row {
    const char *stats;
    int status;
    const char *text;
};

/* ---- periodic requests ---- */

TEST_F(stats_parse_test, bad_periodic_requests)
{
    static const refused_row rows[] = {
        {"5", 1, "stats json attribute is not of type STRING"},
        {"{}", 1, "stats json attribute is not of type STRING"},
        {"null", 1, "stats json attribute is not of type STRING"},
        {"[]", 1, "Stats attribute in request is an empty array"},
        {"[{}]", 1, "Index is missing in stats request"},
        {"[{\"interval\": 60}]", 1, "Index is missing in stats request"},
        {"[{\"index\": 1, \"interval\": 60}]", 1, "Index out of range"},
        {"[{\"index\": 0, \"interval\": 60}]", 1, "Index out of range"},
        {"[{\"index\": -2, \"interval\": 60}]", 1, "Index out of range"},
        {"[{\"index\": 8, \"interval\": 60}]", 1, "Index out of range"},
        {"[{\"index\": \"3\", \"interval\": 60}]", 1, "Index out of range"},
        {"[{\"index\": 3}]", 1, "Interval object is missing in stats request"},
        {"[{\"index\": 3, \"interval\": 0}]", 1,
         "Interval object value in stats request should be greater than 0"},
        {"[{\"index\": 3, \"interval\": -99999999999}]", 1,
         "Interval object value in stats request should be greater than 0"},
        {"[{\"index\": 3, \"interval\": \"60\"}]", 1,
         "Interval object value in stats request should be greater than 0"},
        {"[5]", 1, "parse_stats_object: Not an array"},
        {"[{\"index\": 3, \"interval\": 60, \"fields\": []}]", 1, "Field object is missing in stats request"},
        {"[{\"index\": 3, \"interval\": 60, \"fields\": [\"a\", 5]}]", 1, "Failed to retrieve the field "},
        {"[{\"index\": 3, \"interval\": 60, \"tables\": {}}]", 1,
         "Not able to get tablesize  Please check the stats json request"},
        {"[{\"index\": 3, \"interval\": 60, \"tables\": {\"radio\": []}}]", 1, "Empty tbl array requested"},
        {"[{\"index\": 3, \"interval\": 60, \"tables\": {\"radio\": \"all\"}}]", 1,
         "Not an array object in tables...."},
        {"[{\"index\": 3, \"interval\": 60, \"tables\": {\"radio\": [\"a\", null]}}]", 1,
         "Either tbl_value is null or it is not string, please check stats json request"},
    };
    for (const refused_row &row : rows) {
        EXPECT_EQ(periodic(row.stats), row.status) << row.stats;
        EXPECT_STREQ(error_string, row.text) << row.stats;
        EXPECT_EQ(ev_count_timers(), 0) << row.stats;
        for (const stats_slot &slot : g_stats_info) {
            EXPECT_EQ(slot.request, nullptr) << row.stats;
            EXPECT_EQ(slot.active, 0) << row.stats;
        }
        EXPECT_TRUE(was_logged(row.text) || was_logged("stats is not an array")) << row.stats;
    }
}

TEST_F(stats_parse_test, a_message_without_requests_is_fine)
{
    json_ptr empty(json_object());
    EXPECT_EQ(parse_stats_request(empty.get(), error_string), 0);
    EXPECT_EQ(parse_stats_request(nullptr, error_string), -1);
    EXPECT_TRUE(was_logged("unable to parse an object"));
}

TEST_F(stats_parse_test, slots_two_to_seven_are_taken)
{
    for (int index = 2; index <= 7; index++) {
        EXPECT_EQ(periodic("[{\"index\": " + std::to_string(index) + ", \"interval\": 60}]"), 0);
        EXPECT_EQ(g_stats_info[index].t_index, index);
        EXPECT_EQ(g_stats_info[index].interval, 60);
        EXPECT_EQ(g_stats_info[index].active, 1);
        EXPECT_NE(g_stats_info[index].timer, nullptr);
    }
    EXPECT_EQ(ev_count_timers(), 6);
}

TEST_F(stats_parse_test, an_index_counts_by_its_low_32_bits)
{
    EXPECT_EQ(periodic("[{\"index\": 4294967299, \"interval\": 60}]"), 0);
    EXPECT_EQ(g_stats_info[3].active, 1);
}

TEST_F(stats_parse_test, names_are_kept_in_order_and_cut)
{
    std::string table(200, 't');
    EXPECT_EQ(
        periodic(
            "[{\"index\": 3, \"interval\": 60, \"fields\": [\"uptime\", \"twenty-characters-20\", \"\"], "
            "\"tables\": {\"z\": [\"b\", \"a\"], \"a%db\": [\"x\"], \"" +
            table + "\": [\"x\"]}}]"),
        0);
    const stats_request &request = *g_stats_info[3].request;
    ASSERT_EQ(request.fld_size, 3);
    EXPECT_STREQ(request.fld_array[0].name, "uptime");
    EXPECT_STREQ(request.fld_array[1].name, "twenty-characte");
    EXPECT_STREQ(request.fld_array[2].name, "");
    ASSERT_EQ(request.tbl_size, 3);
    EXPECT_STREQ(request.tbl_array[0].name, "z");
    EXPECT_EQ(request.tbl_array[0].fld_size, 2);
    EXPECT_STREQ(request.tbl_array[0].fld_array[0].name, "") << "columns stay empty";
    EXPECT_STREQ(request.tbl_array[1].name, "a0b");
    EXPECT_EQ(std::string(request.tbl_array[2].name), std::string(127, 't'));
    EXPECT_TRUE(was_logged("Parsing of Table [ z ] complete"));
    EXPECT_TRUE(was_logged("Table size is 3 "));
}

TEST_F(stats_parse_test, lists_of_another_type_are_ignored)
{
    EXPECT_EQ(periodic("[{\"index\": 3, \"interval\": 60, \"fields\": {}, \"tables\": []}]"), 0);
    EXPECT_EQ(g_stats_info[3].request->fld_size, 0);
    EXPECT_EQ(g_stats_info[3].request->tbl_size, 0);
}

TEST_F(stats_parse_test, an_active_slot_takes_the_new_request)
{
    EXPECT_EQ(periodic("[{\"index\": 3, \"interval\": 60, \"fields\": [\"a\"]}]"), 0);
    EXPECT_EQ(periodic("[{\"index\": 3, \"interval\": 90, \"fields\": [\"b\", \"c\"]}]"), 0);
    EXPECT_TRUE(was_logged("Periodic request already active, replacing with new one"));
    EXPECT_EQ(ev_count_timers(), 1);
    EXPECT_EQ(g_stats_info[3].interval, 90);
    EXPECT_EQ(g_stats_info[3].request->fld_size, 2);
}

TEST_F(stats_parse_test, the_same_slot_twice_in_one_message_keeps_the_last_and_one_timer)
{
    EXPECT_EQ(periodic("[{\"index\": 3, \"interval\": 60, \"fields\": [\"a\"]}, "
                       "{\"index\": 3, \"interval\": 90, \"fields\": [\"b\", \"c\"]}]"),
              0);
    EXPECT_EQ(ev_count_timers(), 1);
    EXPECT_EQ(g_stats_info[3].interval, 90);
    EXPECT_EQ(g_stats_info[3].request->fld_size, 2);
}

TEST_F(stats_parse_test, a_bad_object_ends_what_an_earlier_one_began_in_its_slot)
{
    EXPECT_EQ(periodic("[{\"index\": 3, \"interval\": 60, \"fields\": [\"a\"]}, "
                       "{\"index\": 3, \"interval\": 90, \"fields\": []}]"),
              1);
    EXPECT_EQ(ev_count_timers(), 0);
    EXPECT_EQ(g_stats_info[3].active, 0);
}

TEST_F(stats_parse_test, a_bad_object_keeps_all_out_but_what_it_replaced_is_gone)
{
    EXPECT_EQ(periodic("[{\"index\": 3, \"interval\": 60}]"), 0);
    EXPECT_EQ(
        periodic("[{\"index\": 3, \"interval\": 60}, {\"index\": 4, \"interval\": 60}, {\"index\": 9}]"), 1);
    EXPECT_EQ(ev_count_timers(), 0);
    EXPECT_EQ(g_stats_info[3].request, nullptr);
    EXPECT_EQ(g_stats_info[4].active, 0);
}

TEST_F(stats_parse_test, the_objects_before_one_with_a_bad_list_stay_in_force)
{
    EXPECT_EQ(periodic("[{\"index\": 2, \"interval\": 60}, {\"index\": 3, \"interval\": 60}, "
                       "{\"index\": 4, \"interval\": 60, \"fields\": []}, {\"index\": 5, \"interval\": 60}]"),
              1);
    EXPECT_EQ(ev_count_timers(), 2);
    EXPECT_EQ(g_stats_info[3].active, 1);
    EXPECT_EQ(g_stats_info[4].active, 0);
    EXPECT_EQ(g_stats_info[4].request, nullptr);
    EXPECT_EQ(g_stats_info[5].active, 0);
    EXPECT_EQ(periodic("[{\"index\": 6, \"interval\": 60}, \"no object\"]"), 1);
    EXPECT_EQ(g_stats_info[6].active, 1);
}

/* ---- one-time requests ---- */

TEST_F(stats_parse_test, bad_one_time_requests)
{
    static const refused_row rows[] = {
        {"5", 1, "stats object in json  is not an array"},
        {"null", 1, "stats object in json  is not an array"},
        {"[]", 1, "Stats attribute in request is an empty array"},
        {"[{}, {}]", 1, "on-demand stats request can have only 1 request object"},
        {"[[]]", 1, "parse_stats_object: Not an array"},
        {"[{\"fields\": []}]", 1, "Field object is missing in stats request"},
        {"[{\"fields\": [null]}]", -1, "Failed to retrieve the field "},
        {"[{\"tables\": {}}]", 1, "Not able to get tablesize  Please check the stats json request"},
        {"[{\"tables\": {\"radio\": []}}]", -1, "Empty tbl array requested"},
        {"[{\"tables\": {\"radio\": 5}}]", 1, "Not an array object in tables...."},
    };
    daemon_listen();
    for (const refused_row &row : rows) {
        EXPECT_EQ(one_time(row.stats), row.status) << row.stats;
        EXPECT_STREQ(error_string, row.text) << row.stats;
        EXPECT_TRUE(was_logged(row.text)) << row.stats;
        EXPECT_EQ(g_stats_info[0].request, nullptr) << row.stats;
        EXPECT_EQ(daemon_connections(), 0) << row.stats;
    }
    daemon_die();
}

TEST_F(stats_parse_test, a_good_one_time_request_leaves_nothing_behind)
{
    EXPECT_EQ(
        one_time("[{\"index\": 99, \"interval\": -5, \"fields\": [\"a\"], \"tables\": {\"t\": [\"c\"]}}]"),
        0);
    EXPECT_EQ(g_stats_info[0].request, nullptr);
    EXPECT_EQ(g_stats_info[0].active, 0);
    EXPECT_EQ(ev_count_timers(), 0);
    EXPECT_TRUE(was_logged("parse_build_on_demand_stats: Free all memory alloc'd for this onetime request"));
}

/* ---- through the dispatcher ---- */

static int handle(std::string text)
{
    text.push_back('}');
    return handle_orv_msg(text.data(), text.size() - 1, nullptr);
}

struct answer_row {
    const char *request, *answer;
};

TEST_F(stats_parse_test, failures_are_answered_by_type)
{
    static const answer_row rows[] = {
        {"{\"msgType\": 103, \"stats\": [{\"index\": 1, \"interval\": 60}]}",
         "{\"msgType\": 703, \"code\": \"BadRequest\", \"message\": \"Index out of range\"}"},
        {"{\"msgType\": 104, \"stats\": [{}, {}]}",
         "{\"msgType\": 704, \"code\": \"BadRequest\", \"message\": "
         "\"on-demand stats request can have only 1 request object\"}"},
        {"{\"msgType\": 104, \"stats\": [{\"tables\": {\"radio\": []}}]}",
         "{\"msgType\": 704, \"code\": \"BadRequest\", \"message\": \"Empty tbl array requested\"}"},
        {"{\"msgType\": 105, \"index\": 9}", "{\"msgType\": 703, \"code\": \"BadRequest\", \"message\": "
                                             "\"Received stop stats request with invalid index\"}"},
        {"{\"msgType\": 122, \"stats\": []}", "{\"msgType\": 722, \"code\": \"BadRequest\", \"message\": "
                                              "\"Stats attribute in request is an empty array\"}"},
        {"{\"msgType\": 124, \"stats\": 1}", "{\"msgType\": 724, \"code\": \"BadRequest\", \"message\": "
                                             "\"stats object in json  is not an array\"}"},
    };
    for (const answer_row &row : rows) {
        EXPECT_NE(handle(row.request), 0);
        EXPECT_EQ(take_one_queued(), row.answer);
    }
}

TEST_F(stats_parse_test, a_one_time_request_shows_the_device_connected)
{
    snprintf(g_orv_router, sizeof(g_orv_router), "cloud.example");
    EXPECT_EQ(handle("{\"msgType\": 122}"), 0);
    EXPECT_NE(file_text(ORV_STATE_FILE), "Connected to cloud.example") << "only 104 does";
    EXPECT_EQ(handle("{\"msgType\": 104}"), 0);
    EXPECT_EQ(file_text(ORV_STATE_FILE), "Connected to cloud.example");
    EXPECT_TRUE(was_logged("handle_orv_msg: MSG_STATS_ON_DEMAND_REQUEST received"));
    EXPECT_TRUE(was_logged("handle_orv_msg: MSG_STATS_ON_DEMAND_REQUEST Complete"));
    EXPECT_EQ(handle("{\"msgType\": 124}"), 0);
    EXPECT_TRUE(was_logged("handle_orv_msg: MSG_STATS_CUSTOM_REQUEST Complete"));
    EXPECT_EQ(txq, nullptr);
}
