/*
 * A connected agent with a statistics daemon that obeys the test, and what such tests say.
 */
#pragma once

#include <cstring>
#include <string>

#include "agent/owners.h"
#include "device/frames.h"
#include "protocol/error-codes.h"
#include "stats/stats-daemon.h"
#include "stats/stats-digest.h"
#include "stats/stats-info.h"
#include "stats/stats-json-parse.h"
#include "stats/stats-report.h"
#include "tests/unit/connection-test.h"
#include "tests/unit/fake-stats-daemon.h"
#include "tests/unit/queued.h"

class stats_daemon_test : public connection_test {
protected:
    void SetUp() override
    {
        connection_test::SetUp();
        da.state = DA_STATE_CONNECTED;
        write_file("/tmp/session_id", "42");
        daemon_listen();
    }
    void TearDown() override
    {
        free_stats_request(ONE_TIME_SLOT);
        stats_daemon_reset();
        daemon_die();
        da.state = DA_STATE_IDLE;
        connection_test::TearDown();
    }
};

/* A one-time request by its "stats" text. */
inline int ask(const char *text, stats_kind kind = STATS_ON_DEMAND)
{
    json_ptr obj(json_loads(text, 0, nullptr));
    EXPECT_NE(obj, nullptr) << text;
    return parse_build_on_demand_stats(obj.get(), error_string, kind);
}

/* The pass of the loop that takes in what the daemon has sent. The clock stands still in it. */
inline void serve(void) { ev_main(); }

/* The one queued report without its time stamp, which is checked to be now. */
inline std::string report(void)
{
    json_ptr message(json_loads(take_one_queued().c_str(), JSON_ALLOW_NUL, nullptr));
    json_int_t ts = json_integer_value(json_object_get(message.get(), "ts"));
    EXPECT_NEAR(static_cast<double>(ts), static_cast<double>(time(nullptr)), 2);
    json_object_set_new(message.get(), "ts", json_integer(0));
    return malloc_text(json_dumps(message.get(), JSON_PRESERVE_ORDER)).get();
}
