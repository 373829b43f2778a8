#include "operations/config-update.h"

#include "agent/debug-log.h"
#include "agent/txq.h"
#include "operations/config-forms.h"
#include "protocol/error-codes.h"
#include "protocol/message.h"
#include "protocol/replies.h"

#define MODULE "wifi.c"

static bool attributes_are_valid(const json_t *config, const json_t *native_config)
{
    if (!config && !native_config)
        return false;
    if (config && !json_is_object(config) && !json_is_string(config))
        return false;
    return !native_config || json_is_string(native_config);
}

int config_not_writable(char *message_buffer)
{
    set_error_text(message_buffer, "Not able to open config file for writing");
    return INTERNAL_ERROR;
}

void tell_config_status(const char *word, const char *text)
{
    (void)write_config_status_to_orv(MSG_CONFIG_UPDATE_RSP, word, text);
    flush_txq();
}

int platform_set_config(const json_t *request, char *message_buffer)
{
    if (!request) {
        LOG(LOG_FAILURE, "NULL config json");
        return -1;
    }
    int overwrite = json_is_true(json_object_get(request, "overwrite")) ? 1 : 0;
    const json_t *config = json_object_get(request, "config");
    const json_t *native_config = json_object_get(request, "nativeConfig");
    if (!attributes_are_valid(config, native_config)) {
        set_error_text(message_buffer, "Invalid Config Attribute in json request from Orvanta");
        LOG(LOG_FAILURE, "%s", message_buffer);
        return BAD_REQUEST;
    }
    if (!config)
        return NO_ERROR; /* on purpose: a native part comes into force only together with an object */
    if (json_is_object(config))
        return apply_object_config(config, native_config, overwrite, message_buffer);
    LOG(LOG_EVENT, "%s: CLI template based configuration update initiated", "platform_set_config");
    return overwrite ? overwrite_cli_config(config, message_buffer)
                     : apply_partial_cli_config(config, message_buffer);
}

int parse_and_apply_config(const json_t *request, char *message_buffer)
{
    return platform_set_config(request, message_buffer);
}
