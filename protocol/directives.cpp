#include "protocol/directives.h"

#include <cstdio>
#include <ctime>

#include "agent/da.h"
#include "agent/debug-log.h"
#include "agent/reboot-sequence.h"
#include "agent/run.h"
#include "agent/text.h"
#include "platform/connection-status.h"
#include "platform/reboot.h"
#include "protocol/error-codes.h"

#define MODULE "device-agent.c"

enum {
    DEFAULT_REBOOT_DELAY = 5, /* seconds */
    LEAST_REBOOT_DELAY = 1,   /* seconds: the answer leaves before the connection is closed */
};

int32_t reboot_force;

static reboot_sequence sequence = {
    {"REBOOT", reboot_timer_cb, nullptr}, {"CLOSE FRAME DELAY", reboot_timer_cb, nullptr}, 0};
static char g_rebootReason[128];

static int refuse(char *error_text, const char *text)
{
    set_error_text(error_text, "%s", text);
    LOG(LOG_FAILURE, "%s", text);
    return BAD_REQUEST;
}

/* ---- status and intervals ---- */

int parse_and_apply_orvanta_status(const json_t *obj, char *error_text)
{
    if (!obj)
        return refuse(error_text, "Invalid object received");
    const json_t *orvanta = json_object_get(obj, "Orvanta");
    if (!json_is_object(orvanta))
        return refuse(error_text, "Invalid Orvanta object received");
    const char *status = json_string_value(json_object_get(orvanta, "status"));
    if (!status)
        return refuse(error_text, "Invalid status received");
    LOG(LOG_EVENT, "Orvanta status to display [%s]", status);
    (void)platform_set_orv_connection_state(ORV_TEXT_FROM_CONTROLLER, status);
    return NO_ERROR;
}

int parse_and_apply_retry_intvls(const json_t *obj, char *error_text)
{
    const json_t *wait = json_object_get(obj, "waitTime");
    if (!json_is_integer(wait))
        return refuse(error_text, "Invalid waitTime received");
    da.reconnect_wait = clamp_to_int32(json_integer_value(wait));
    const json_t *delta = json_object_get(obj, "deltaTime");
    if (!json_is_integer(delta))
        return refuse(error_text, "Invalid deltaTime received"); /* the wait stays, on purpose */
    da.reconnect_delta = clamp_to_int32(json_integer_value(delta));
    LOG(LOG_EVENT, "Orvanta has sent reconnect wait=%d delta=%d", da.reconnect_wait, da.reconnect_delta);
    return NO_ERROR;
}

/* ---- clock ---- */

int set_system_time(int64_t seconds)
{
    time_t t = seconds;
    struct tm local = {};
    tzset(); /* the zone may have changed since the start */
    if (!localtime_r(&t, &local)) {
        LOG(LOG_FAILURE, "%s: no calendar has the time %lld", "set_system_time",
            static_cast<long long>(seconds));
        return -1;
    }
    LOG(LOG_TRACE, "%s: UTC time: %lu\n", "set_system_time", static_cast<unsigned long>(seconds));
    char text[80]; /* the widest numbers, as the compiler sees it; a real time takes 26 */
    snprintf(text, sizeof(text), "%lld.%.2d.%.2d-%.2d:%.2d:%.2d", local.tm_year + 1900LL, local.tm_mon + 1,
             local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    LOG(LOG_FAILURE, "Syncing system time to Orvanta time [%s]", text);
    char command[128];
    snprintf(command, sizeof(command), "date %s", text);
    return run_shell(command);
}

/* ---- reboot ---- */

int parse_reboot_request(const json_t *obj, char *error_text)
{
    if (!obj) {
        set_error_text(error_text, "jobj is NULL, ideally this should never happen");
        return INTERNAL_ERROR;
    }
    const char *reason = json_string_value(json_object_get(obj, "reason"));
    if (reason)
        LOG(LOG_TRACE, "Reboot reason from Orvanta: %s ", reason);
    const json_t *asked = json_object_get(obj, "delay");
    int32_t delay =
        json_is_integer(asked) ? clamp_to_int32(json_integer_value(asked)) : int32_t{DEFAULT_REBOOT_DELAY};
    const json_t *force = json_object_get(obj, "force");
    if (json_is_boolean(force))
        reboot_force = json_is_true(force) ? 1 : 0;
    LOG(LOG_EVENT, "Rebooting device after %d seconds", delay);
    copy_format_text(g_rebootReason, reason ? reason : "");
    reboot_begin(&sequence, delay < LEAST_REBOOT_DELAY ? int32_t{LEAST_REBOOT_DELAY} : delay);
    return NO_ERROR;
}

void reboot_timer_cb(void *)
{
    if (!reboot_is_due(&sequence))
        return;
    LOG(LOG_EVENT, "%s: g_rebootReason [%s]", "reboot_timer_cb", g_rebootReason);
    (void)platform_reboot(g_rebootReason); /* who asked for it sees the device come back without it */
}

void directives_reset(void)
{
    reboot_stop(&sequence);
    reboot_force = 0;
}
