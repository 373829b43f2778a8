#include "protocol/dispatcher.h"

#include <cstdint>

#include "agent/cfg-restore-timer.h"
#include "agent/da.h"
#include "agent/debug-log.h"
#include "agent/hooks.h"
#include "agent/owners.h"
#include "agent/registration.h"
#include "agent/text.h"
#include "operations/config-pull.h"
#include "operations/config-update.h"
#include "operations/exec-cmd.h"
#include "operations/latency.h"
#include "operations/radio-scan.h"
#include "operations/sw-upgrade.h"
#include "operations/tech-support.h"
#include "platform/connection-status.h"
#include "platform/link-test.h"
#include "platform/locate.h"
#include "protocol/command-output.h"
#include "protocol/device-info.h"
#include "protocol/directives.h"
#include "protocol/error-codes.h"
#include "protocol/managed-info.h"
#include "protocol/message.h"
#include "protocol/received.h"
#include "protocol/register.h"
#include "protocol/replies.h"
#include "protocol/wifid-payload.h"
#include "stats/stats-json-parse.h"
#include "stats/stats-timers.h"

#define MODULE "device-agent.c"

/* ---- handlers with more to do than their own reader ---- */

/* The connection is shown as up before the long work begins. */
static int software_upgrade(const json_t *obj, char *error_text)
{
    platform_set_orv_connection_state(ORV_CONNECTED, nullptr);
    int status = parse_sw_upgrade_request(obj, fw_url, error_text);
    return status == NO_ERROR ? platform_sw_update(fw_url, error_text) : status;
}

/* Likewise; a throughput test does not survive it. */
static int config_update(const json_t *obj, char *error_text)
{
    platform_set_orv_connection_state(ORV_CONNECTED, nullptr);
    int status = parse_and_apply_config(obj, error_text);
    call_hook(hooks.stop_wifiperf);
    return status;
}

static int config_pull(const json_t *, char *error_text) { return platform_pull_and_send_config(error_text); }

/* The controller is the one who asks here. */
static int radio_scan(const json_t *obj, char *error_text)
{
    int status = parse_radio_scan_request(obj, error_text, 1);
    if (status != NO_ERROR)
        LOG(LOG_FAILURE, "Radio scan failure : %s", error_text);
    return status;
}

/* Whatever the reason, the refusal is a bad request. */
static int latency_test(const json_t *obj, char *error_text)
{
    return parse_and_test_latency(obj, error_text) == NO_ERROR ? NO_ERROR : BAD_REQUEST;
}

/* One at a time: the archive that is being uploaded must not be made anew. */
static int tech_support(const json_t *obj, char *error_text)
{
    if (!upload_in_progress)
        return parse_tech_support_request(obj, error_text);
    set_error_text(error_text, "Another upload is in progress");
    LOG(LOG_FAILURE, "%s", error_text);
    return UPLOAD_IN_PROGRESS;
}

/* It answers by itself. */
static int tech_support_abort(const json_t *, char *) { return abort_tech_support_upload(); }

static int locate(const json_t *, char *) { return platform_locate(); }

/* What there is to be told of it comes from whatever the device has for it. */
static int link_test(const json_t *, char *) { return platform_start_link_test(); }

static int device_info_request(const json_t *, char *error_text)
{
    return build_and_send_dev_info(error_text);
}

static int on_demand_stats(const json_t *obj, char *error_text)
{
    platform_set_orv_connection_state(ORV_CONNECTED, nullptr);
    return parse_build_on_demand_stats(obj, error_text, STATS_ON_DEMAND);
}

static int stats_info(const json_t *obj, char *error_text)
{
    return parse_build_on_demand_stats(obj, error_text, STATS_DEVICE_INFO);
}

static int custom_stats(const json_t *obj, char *error_text)
{
    return parse_build_on_demand_stats(obj, error_text, STATS_CUSTOM);
}

/* A command that was started or stopped and has no output of its own is told by its name, which is freed. */
static void tell_command_status(int result, char *name, int32_t done, int32_t failed)
{
    malloc_text owned(name);
    if (result == EXEC_STATUS)
        (void)send_cmd_execution_abort_status(done, name);
    else if (result == EXEC_FAILED)
        (void)send_cmd_execution_abort_status(failed, name);
}

static int exec_command(const json_t *obj, char *error_text)
{
    int status = parse_exec_cmd(obj, error_text);
    if (status != NO_ERROR) {
        LOG(LOG_FAILURE, "Exec command failure : %s", error_text);
        return status;
    }
    char *name = nullptr;
    int result = start_exec_cmd(obj, TS_FOR_CONTROLLER, &name);
    tell_command_status(result, name, MSG_EXEC_CMD_RSP, MSG_EXEC_CMD_FAILURE);
    return NO_ERROR;
}

static int exec_stop(const json_t *obj, char *)
{
    char *name = nullptr;
    int result = abort_exec_cmd(obj, &name);
    tell_command_status(result, name, MSG_EXEC_STOP_RSP, MSG_EXEC_STOP_FAILURE);
    return NO_ERROR;
}

/* The answer is the Wi-Fi daemon's; one that does not get there is logged where it is lost. */
static int controller_response(const json_t *obj, char *) { return handle_controller_rsp(obj); }

static int register_success(const json_t *obj, char *error_text)
{
    uint32_t generation = state_generation;
    (void)parse_register_response(MSG_REGISTER_SUCCESS, obj, error_text);
    /* SIGUSR1 may strike while the clock is set: the connection that was accepted is gone then. */
    if (generation != state_generation)
        return NO_ERROR;
    da.registered = 1;
    registration_answered();
    platform_set_orv_connection_state(ORV_APPROVAL_PENDING, nullptr);
    stop_cfg_restore_timer();
    return NO_ERROR;
}

static int register_failed(const json_t *obj, char *error_text)
{
    int status = parse_register_response(MSG_REGISTER_FAILED, obj, error_text);
    da.registered = 0;
    registration_answered();
    retry_registration();
    return status;
}

/* ---- the catalogue ---- */

struct message_row {
    int32_t msgType;
    int received_level;
    const char *received_log;                            /* "%s" is the dispatcher's name */
    int (*handler)(const json_t *obj, char *error_text); /* 0, or a status of protocol/error-codes.h */
    int32_t failure_reply;
    int32_t success_reply;              /* 0: the dispatcher sends none */
    const char *complete_log;           /* null: none */
    const char *failure_text = nullptr; /* "message" of the failure reply; null: the handler's error text */
};

/* In the order of the type numbers. A type without a row is unknown. */
static const message_row catalogue[] = {
    {MSG_SW_UPGRADE_REQUEST, LOG_TRACE, "%s: MSG_SW_UPGRADE_REQUEST received", software_upgrade, 701, 0,
     nullptr},
    {MSG_REBOOT_CMD, LOG_EVENT, "%s: MSG_REBOOT_CMD received", parse_reboot_request, 702, MSG_REBOOT_RSP,
     "%s: MSG_REBOOT_CMD_REQUEST Complete"},
    {MSG_STATS_REQUEST, LOG_TRACE, "%s: MSG_STATS_REQUEST received", parse_stats_request, 703, 0, nullptr},
    {MSG_STATS_ON_DEMAND_REQUEST, LOG_TRACE, "%s: MSG_STATS_ON_DEMAND_REQUEST received", on_demand_stats, 704,
     0, "%s: MSG_STATS_ON_DEMAND_REQUEST Complete"},
    /* a refused stop shares the number of a refused start */
    {MSG_STATS_STOP_REQUEST, LOG_EVENT, "%s: MSG_STATS_STOP_REQUEST received", stop_stats_request, 703, 0,
     nullptr},
    {MSG_CONFIG_UPDATE_REQUEST, LOG_TRACE, "%s: MSG_CONFIG_UPDATE_REQUEST received", config_update, 706, 0,
     nullptr},
    {MSG_CONFIG_PULL_REQUEST, LOG_TRACE, "%s: MSG_CONFIG_PULL_REQUEST received", config_pull, 707, 0,
     "%s: MSG_CONFIG_PULL_REQUEST Complete", "ERR_BAD_REQUEST"},
    {MSG_MANAGED_INFO, LOG_TRACE, "%s:MSG_MANAGED_INFO received", parse_managed_info, 708,
     MSG_MANAGED_INFO_RSP, "%s:MSG_MANAGED_INFO Complete"},
    {MSG_EXEC_CMD, LOG_TRACE, "%s: MSG_EXEC_CMD received", exec_command, MSG_EXEC_CMD_FAILURE, 0, nullptr},
    {MSG_EXEC_STOP, LOG_TRACE, "%s: MSG_EXEC_STOP received", exec_stop, 0, 0, nullptr},
    {MSG_RADIO_SCAN_REQUEST, LOG_TRACE, "%s: MSG_RADIO_SCAN_REQUEST received", radio_scan, 711, 0, nullptr},
    {MSG_LATENCY_TEST, LOG_TRACE, "%s: MSG_LATENCY_TEST received", latency_test, 712, 0, nullptr},
    {MSG_TECH_SUPPORT_REQUEST, LOG_TRACE, "%s: MSG_TECH_SUPPORT_REQUEST received", tech_support, 713, 0,
     nullptr},
    {MSG_TECH_SUPPORT_ABORT, LOG_TRACE, "%s: MSG_TECH_SUPPORT_ABORT received", tech_support_abort, 0, 0,
     nullptr},
    {MSG_LOCATE_CMD, LOG_EVENT, "%s: MSG_LOCATE_CMD received", locate, 715, MSG_LOCATE_RSP,
     "%s: MSG_LOCATE_CMD_REQUEST Complete"},
    {MSG_INTVL_UPDATE_CMD_REQUEST, LOG_TRACE, "%s: MSG_INTVL_UPDATE_CMD_REQUEST received",
     parse_and_apply_retry_intvls, 717, 0, nullptr},
    {MSG_LINK_TEST_REQUEST, LOG_TRACE, "%s: MSG_LINK_TEST_REQUEST received", link_test, 719, 0, nullptr},
    {MSG_STATS_INFO_REQUEST, LOG_TRACE, "%s: MSG_STATS_INFO_REQUEST received", stats_info, 722, 0,
     "%s: MSG_STATS_ON_DEMAND_REQUEST Complete"},
    {MSG_DEV_INFO_REQUEST, LOG_TRACE, "%s:MSG_DEV_INFO_REQUEST received", device_info_request, 723, 0,
     nullptr},
    {MSG_STATS_CUSTOM_REQUEST, LOG_TRACE, "%s: MSG_STATS_CUSTOM_REQUEST received", custom_stats, 724, 0,
     "%s: MSG_STATS_CUSTOM_REQUEST Complete"},
    {MSG_REGISTER_SUCCESS, LOG_EVENT, "%s: MSG_REGISTER_SUCCESS received", register_success, 0, 0, nullptr},
    {MSG_CONTROLLER_RSP, LOG_TRACE, "%s: Controller response message received", controller_response, 0, 0,
     nullptr},
    {MSG_ORVANTA_CONNECT_STATUS, LOG_TRACE, "%s: MSG_ORVANTA_CONNECT_STATUS received",
     parse_and_apply_orvanta_status, MSG_FAILURE, 0, nullptr},
    {MSG_REGISTER_FAILED, LOG_EVENT, "%s: MSG_REGISTER_FAILED received", register_failed, 700, 0, nullptr},
};

static const message_row *find_row(int64_t msgType)
{
    for (const message_row &row : catalogue)
        if (row.msgType == msgType)
            return &row;
    return nullptr;
}

/* The texts of the table stay format texts only here, where each is known to take the one name. */
static void log_row(int level, const char *text)
{
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    LOG(level, text, "handle_orv_msg");
#pragma GCC diagnostic pop
}

static int dispatch(const message_row &row, const json_t *obj)
{
    log_row(row.received_level, row.received_log);
    int status = row.handler(obj, error_string);
    if (status != NO_ERROR && row.failure_reply != 0)
        send_failure_msg(row.failure_reply, status, row.failure_text ? row.failure_text : error_string);
    if (status == NO_ERROR && row.success_reply != 0)
        send_success_msg(row.success_reply);
    if (row.complete_log)
        log_row(LOG_EVENT, row.complete_log);
    return status;
}

int handle_orv_msg(char *text, size_t length, void *)
{
    text[length] = '\0';
    json_error_t error;
    json_ptr obj(json_loads(text, 0, &error));
    if (!obj) {
        set_error_text(error_string, "Unable to load JSON ,error  on line %d: %s", error.line, error.text);
        send_failure_msg(MSG_FAILURE, BAD_REQUEST, error_string);
        LOG(LOG_FAILURE, "%s", error_string);
        return -1;
    }
    const json_t *type = json_object_get(obj.get(), "msgType");
    if (!type) {
        LOG(LOG_FAILURE, "%s", error_string); /* the failure before this one, logged first on purpose */
        set_error_text(error_string, "Not able to find msgType in the json request");
        send_failure_msg(MSG_FAILURE, BAD_REQUEST, error_string);
        return -1;
    }
    int64_t msgType = json_integer_value(type); /* 0, an unknown type, when it is no integer */
    const message_row *row = find_row(msgType);
    if (!row) {
        LOG(LOG_FAILURE, "%s: UNKNOWN message %d received from Orvanta", "handle_orv_msg",
            clamp_to_int32(msgType));
        return 0;
    }
    return dispatch(*row, obj.get());
}
