#include "protocol/replies.h"

#include <cstring>
#include <ctime>

#include "agent/da.h"
#include "agent/debug-log.h"
#include "platform/config-version.h"
#include "protocol/error-codes.h"
#include "protocol/message.h"

#define MODULE "common.c"

/* ---- commands ---- */

int send_cmd_execution_abort_status(int32_t msgType, const char *command_name)
{
    static const char function[] = "send_cmd_execution_abort_status";
    if (!command_name) {
        LOG(LOG_FAILURE, " Returning as cmdName is not allocated  %s  cmdName %s msgType %d", function,
            "(null)", msgType);
        return -1;
    }
    json_ptr message = new_message(msgType);
    add_text(message, "command", command_name);
    switch (msgType) {
    case MSG_EXEC_CMD_RSP:
        /* Its work is done when it is accepted; the others have just begun. */
        add_text(message, "status",
                 strcmp(command_name, "disconnect-clients") == 0 ? "Complete" : "Initiated");
        break;
    case MSG_EXEC_STOP_RSP: add_text(message, "status", "Completed"); break;
    case MSG_EXEC_CMD_FAILURE:
        add_text(message, "code", err_code_str[INTERNAL_ERROR]);
        add_text(message, "message", "Execution failed");
        break;
    case MSG_EXEC_STOP_FAILURE:
        add_text(message, "code", err_code_str[INTERNAL_ERROR]);
        add_text(message, "message", "cmd abort failed");
        break;
    default: break;
    }
    int result = queue_text(dump_message(message, function));
    if (result == 0)
        LOG(LOG_EVENT, "Sending_cmd_status %s  cmdName %s msgType %d", function, command_name, msgType);
    return result;
}

/* ---- software upgrade ---- */

static malloc_text upgrade_text(int32_t msgType, const char *word, const char *text, const char *function)
{
    json_ptr message = new_message(msgType);
    add_text(message, msgType == MSG_SW_UPGRADE_FAILURE ? "code" : "status", word);
    add_text(message, "message", text);
    return dump_message(message, function);
}

/* The message as it goes out, in the log. */
static void log_message(const malloc_text &text, const char *function)
{
    if (text)
        LOG(LOG_TRACE, "%s: JSON Object: [%s]", function, text.get());
}

int build_and_send_upgrade_response(int32_t msgType, const char *word, const char *text)
{
    return queue_text(upgrade_text(msgType, word, text, "build_and_send_upgrade_response"));
}

int build_and_send_sw_update_state(int32_t msgType, const char *word, const char *text)
{
    static const char function[] = "build_and_send_sw_update_state";
    malloc_text message = upgrade_text(msgType, word, text, function);
    log_message(message, function);
    return queue_text(message);
}

/* ---- configuration ---- */

int write_config_status_to_orv(int32_t msgType, const char *word, const char *text)
{
    json_ptr message = new_message(msgType);
    add_text(message, "status", word);
    add_text(message, "message", text);
    return queue_text(malloc_text(json_dumps(message.get(), JSON_PRESERVE_ORDER)));
}

int send_config_to_orv(json_t *config, char *error_text)
{
    json_ptr message = new_message(MSG_CONFIG_PULL_RSP);
    int added = json_object_set_new(message.get(), "config", config);
    malloc_text text(added == 0 ? json_dumps(message.get(), JSON_PRESERVE_ORDER) : nullptr);
    if (!text) {
        LOG(LOG_FAILURE, "json dump failed");
        set_error_text(error_text, "json dump failed");
        return INTERNAL_ERROR;
    }
    return queue_text(text);
}

int build_and_send_cfg_change_notify(void)
{
    static const char function[] = "build_and_send_cfg_change_notify";
    json_ptr message = new_message(MSG_CONFIG_CHANGED);
    add_integer(message, "configVersion", platform_get_da_config_version());
    malloc_text text = dump_message(message, function);
    log_message(text, function);
    return queue_text(text);
}

/* ---- events ---- */

int build_and_send_trap_info(const char *event_id, const char *description, json_t *payload)
{
    json_ptr message = new_message(MSG_TRAP);
    add_text(message, "eId", event_id);
    add_integer(message, "eTime", time(nullptr));
    add_text(message, "desc", description);
    if (payload)
        json_object_set_new(message.get(), "varPayload", payload);
    malloc_text text = dump_message(message, "build_and_send_trap_info");
    return da.registered == 1 ? queue_text(text) : -1;
}
