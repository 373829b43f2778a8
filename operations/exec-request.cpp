/*
 * What may be asked for: the one function of operations/exec-cmd.h that reads requests.
 */
#include <cstring>

#include "agent/debug-log.h"
#include "agent/text.h"
#include "operations/disconnect-clients.h"
#include "operations/exec-arguments.h"
#include "operations/exec-cmd.h"
#include "protocol/command-output.h"
#include "protocol/error-codes.h"

#define MODULE "exec-cmd.c"

static const char *const approved_commands[] = {"ping",    "traceroute", "nslookup",
                                                "tcpdump", "log",        "wifiperf"};

static bool is_approved(const char *command)
{
    for (const char *approved : approved_commands)
        if (strcmp(command, approved) == 0)
            return true;
    return false;
}

int parse_exec_cmd(const json_t *request, char *error_text)
{
    if (is_service_command(request))
        return parse_service_command(request, error_text);
    if (exec_running) {
        LOG(LOG_EVENT, "Command execution already in progress, aborting to start new command");
        set_error_text(error_text, "Command execution already in progress, aborting old command");
        /* Not with the request: one for wifiperf would end nothing. */
        (void)abort_exec_cmd(nullptr, nullptr);
        return BAD_REQUEST;
    }
    if (!request) {
        set_error_text(error_text, "jobj is NULL, ideally this should never happen");
        return INTERNAL_ERROR;
    }
    clear_exec_command();
    const char *command = json_string_value(json_object_get(request, "command"));
    if (!command) {
        LOG(LOG_FAILURE, "No command found");
        return BAD_REQUEST;
    }
    LOG(LOG_EVENT, "Command from Orvanta: %s ", command);
    if (!is_approved(command)) {
        LOG(LOG_FAILURE, "Unapproved command : %s ", command);
        set_error_text(error_text, "Trying to execute unapproved command");
        return BAD_REQUEST;
    }
    copy_text(exec_cmd.command, command);
    const json_t *arguments = json_object_get(request, "arguments");
    if (json_is_object(arguments))
        read_exec_arguments(arguments);
    exec_cmd.duration = clamp_to_int32(json_integer_value(json_object_get(request, "duration")));
    LOG(LOG_TRACE, "Got duration %d", exec_cmd.duration);
    return NO_ERROR;
}
