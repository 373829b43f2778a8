#include "stats/stats-report.h"

#include <ctime>

#include "agent/debug-log.h"
#include "protocol/message.h"
#include "protocol/session-id.h"

#define MODULE "common.c"

static int32_t message_type(int32_t periodic)
{
    if (periodic == REPORT_PERIODIC)
        return MSG_STATS;
    if (periodic >= REPORT_FIRST_CUSTOM && periodic <= REPORT_LAST_CUSTOM)
        return MSG_STATS_CUSTOM_RSP;
    return periodic == REPORT_DEVICE_INFO ? MSG_STATS_INFO_RSP : MSG_STATS_ON_DEMAND_RSP;
}

int send_stats_to_orv(json_ptr stats, int32_t periodic, int32_t index)
{
    static const char function[] = "send_stats_to_orv";
    int32_t msgType = message_type(periodic);
    json_ptr message = new_message(msgType);
    if (msgType == MSG_STATS)
        add_integer(message, "index", index);
    if (msgType == MSG_STATS_CUSTOM_RSP) {
        LOG(LOG_TRACE, "%s: CUSTOM_INFO ready, periodic %d", function, periodic);
        add_integer(message, "subType", periodic);
    }
    add_integer(message, "sessId", get_session_id());
    add_integer(message, "ts", time(nullptr));
    json_object_set_new(message.get(), "stats", stats.release());
    malloc_text text(json_dumps(message.get(), JSON_PRESERVE_ORDER));
    if (!text)
        LOG(LOG_FAILURE, "json dump failed , %s ", function);
    return queue_text(text);
}
