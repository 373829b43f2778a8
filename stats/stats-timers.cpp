#include "stats/stats-timers.h"

#include "agent/da.h"
#include "agent/debug-log.h"
#include "agent/text.h"
#include "protocol/error-codes.h"
#include "stats/stats-daemon.h"
#include "stats/stats-report.h"

#define MODULE "stats-json-parse.c"

int start_stats_timer(stats_slot *slot)
{
    /* A stopped slot that is asked for again still has the timer of before: one slot, one timer. */
    stop_stats_timer(slot);
    slot->timer = ev_add_timer(stats_timer_cb, slot, slot->interval, 0);
    return slot->timer ? 0 : -1;
}

void stop_stats_timer(stats_slot *slot)
{
    ev_del_timer(slot->timer);
    slot->timer = nullptr;
}

static int send_periodic_stats(int32_t t_index)
{
    if (platform_get_stats() < 0) {
        LOG(LOG_FAILURE, "Failed to get stats from device");
        return -1;
    }
    LOG(LOG_TRACE, "dispatch stat blocks");
    int result = platform_build_and_send_stats(t_index, REPORT_PERIODIC);
    if (result < 0) {
        LOG(LOG_FAILURE, "Failed to send stats, ret=%d", result);
        return -1;
    }
    return 0;
}

void stats_timer_cb(void *argument)
{
    stats_slot *slot = static_cast<stats_slot *>(argument);
    slot->timer = nullptr;
    if (da.state != DA_STATE_CONNECTED)
        return;
    if (!slot->active) {
        LOG(LOG_EVENT, "Stats request NOT active anymore disable recurrance of t_index=%d", slot->t_index);
        return;
    }
    (void)start_stats_timer(slot);
    (void)send_periodic_stats(slot->t_index);
}

int stop_stats_request(const json_t *obj, char *error_text)
{
    if (!obj) {
        set_error_text(error_text, "Received stop stats request without index");
        LOG(LOG_FAILURE, "%s", error_text);
        return BAD_REQUEST;
    }
    int32_t index = clamp_to_int32(json_integer_value(json_object_get(obj, "index")));
    if (index < 0 || index >= STATS_SLOTS) {
        LOG(LOG_FAILURE, "Received stop stats request with invalid index %d", index);
        set_error_text(error_text, "Received stop stats request with invalid index");
        return BAD_REQUEST;
    }
    LOG(LOG_EVENT, "Received periodic stats stop request t_index=%d", index);
    g_stats_info[index].active = 0;
    free_stats_request(index);
    return NO_ERROR;
}

void cancel_stats_timers(void)
{
    for (stats_slot &slot : g_stats_info) {
        if (!slot.timer)
            continue;
        LOG(LOG_TRACE, "Cancelling pstats timer t_index=%d timer=%p", slot.t_index,
            static_cast<void *>(slot.timer));
        slot.active = 0;
        free_stats_request(slot.t_index);
        stop_stats_timer(&slot);
    }
}
