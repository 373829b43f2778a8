#include "operations/disconnect-clients.h"

#include <cstring>

#include "agent/debug-log.h"
#include "agent/ev.h"
#include "agent/text.h"
#include "platform/station-disconnect.h"
#include "protocol/error-codes.h"
#include "protocol/received.h"

#define MODULE "exec-cmd.c"

int32_t service_cmd_pending;

static char service_cmd[30];

bool is_service_command(const json_t *request)
{
    return sta_disconnect_cb && strcmp(received_text(request, "command"), "disconnect-clients") == 0;
}

const char *service_command_name(void) { return service_cmd; }

int parse_service_command(const json_t *request, char *error_text)
{
    if (service_cmd_pending) {
        LOG(LOG_FAILURE, "Service Command execution already in progress, abortin");
        set_error_text(error_text, "Service Command execution already in progress, so cannor process it");
        return BAD_REQUEST;
    }
    const json_t *arguments = json_object_get(request, "arguments");
    if (!json_is_object(arguments)) {
        LOG(LOG_FAILURE, "argument is not valid");
        set_error_text(error_text, "argument is not valid");
        return BAD_REQUEST;
    }
    const json_t *macs = json_object_get(arguments, "macs");
    if (!macs) {
        LOG(LOG_FAILURE, "No mac List found");
        set_error_text(error_text, "macs list is empty");
        return BAD_REQUEST;
    }
    if (json_array_size(macs) == 0) {
        LOG(LOG_FAILURE, "sta mac array is empty");
        set_error_text(error_text, "sta macs array is empty");
        return BAD_REQUEST;
    }
    copy_text(service_cmd, "disconnect-clients");
    service_cmd_pending = 1;
    return NO_ERROR;
}

static void disconnect(const json_t *mac)
{
    if (json_is_string(mac))
        (void)sta_disconnect_cb(json_string_value(mac));
    else
        LOG(LOG_FAILURE, "Macs are not in right string format");
}

bool run_service_command(const json_t *request)
{
    LOG(LOG_EVENT, "Service command %s is getting triggered", service_cmd);
    service_cmd_pending = 0;
    const json_t *macs = json_object_get(json_object_get(request, "arguments"), "macs");
    if (!macs) {
        LOG(LOG_FAILURE, "No mac List found");
        return false;
    }
    const int32_t begun = ev_get_time().sec;
    for (size_t i = 0; i < json_array_size(macs); i++) {
        if (ev_get_time().sec - begun >= DISCONNECT_SECONDS) {
            LOG(LOG_FAILURE, "The configuration daemon is too slow, %zu clients are left out",
                json_array_size(macs) - i);
            break;
        }
        disconnect(json_array_get(macs, i));
    }
    return true;
}
