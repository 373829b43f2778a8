#include "stats/stats-report.h"

#include <ctime>

#include "agent/debug-log.h"
#include "protocol/message.h"

#define MODULE "common.c"

static int32_t message_type(int32_t periodic)
{
    if (periodic == REPORT_PERIODIC)
        return MSG_STATS;
    if (periodic >= REPORT_FIRST_CUSTOM && periodic <= REPORT_LAST_CUSTOM)
        return MSG_STATS_CUSTOM_RSP;
    return periodic == REPORT_DEVICE_INFO ? MSG_STATS_INFO_RSP : MSG_STATS_ON_DEMAND_RSP;
}

static bool is_custom(int32_t periodic) { return message_type(periodic) == MSG_STATS_CUSTOM_RSP; }

malloc_text stats_report(json_ptr stats, int32_t periodic, int32_t index, int32_t session)
{
    json_ptr message = new_message(message_type(periodic));
    if (periodic == REPORT_PERIODIC)
        add_integer(message, "index", index);
    if (is_custom(periodic))
        add_integer(message, "subType", periodic);
    add_integer(message, "sessId", session);
    add_integer(message, "ts", time(nullptr));
    json_object_set_new(message.get(), "stats", stats.release());
    return malloc_text(json_dumps(message.get(), JSON_PRESERVE_ORDER));
}

int send_stats_to_orv(const malloc_text &report, int32_t periodic)
{
    static const char function[] = "send_stats_to_orv";
    if (is_custom(periodic))
        LOG(LOG_TRACE, "%s: CUSTOM_INFO ready, periodic %d", function, periodic);
    if (!report)
        LOG(LOG_FAILURE, "json dump failed , %s ", function);
    return queue_text(report);
}
