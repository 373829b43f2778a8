#include <cstring>
#include <string>

#include <unistd.h>

#include "agent/debug-log.h"
#include "agent/owners.h"
#include "agent/text.h"
#include "device/scm.h"
#include "operations/clish.h"
#include "operations/config-files.h"
#include "operations/config-forms.h"
#include "operations/config-restore.h"
#include "platform/state-files.h"
#include "protocol/error-codes.h"
#include "protocol/message.h"
#include "protocol/replies.h"

#define MODULE "wifi.c"

static const char function[] = "platform_set_config";

/* The order of the removals: a flag file without a backup would ask for a restore that cannot be. */
void platform_revert_to_backup_config(void)
{
    LOG(LOG_NOTABLE, "Configuration rejected, restoring last good config");
    run_clish("-f", CONFIG_BACKUP_FILE);
    run_clish("-e", "save");
    (void)unlink(DEVICE_RECONFIGURED_FILE);
    (void)unlink(CONFIG_BACKUP_FILE);
}

/* The daemon's text is the message, as it stands: percent signs mean nothing, no character is cut in two. */
static int reject(const char *what, const char *error, char *message_buffer)
{
    LOG(LOG_FAILURE, "%s: Bad %s request [%s]", function, what, error);
    std::string text = valid_utf8(error, strlen(error));
    text.resize(utf8_border(text, ERROR_TEXT_LENGTH));
    set_error_text(message_buffer, "%s", text.c_str());
    platform_revert_to_backup_config();
    return BAD_REQUEST;
}

int apply_object_config(const json_t *config, const json_t *native_config, int overwrite,
                        char *message_buffer)
{
    LOG(LOG_EVENT, "%s: Object based configuration update initiated", function);
    tell_config_status("Initiated", "Initiated configuration update operation.");
    if (backup_config() == COPY_FAILED)
        return config_not_writable(message_buffer);
    reconfig_pending = 0;
    platform_mark_device_reconfigured();
    malloc_text error(scm_process_device_json_config(config, overwrite));
    if (error)
        return reject("config", error.get(), message_buffer);

    LOG(LOG_TRACE, "%s: Configuration update in-progress", function);
    tell_config_status("InProgress", "Config update in progress");
    error.reset(scm_process_device_native_config(native_config, overwrite));
    if (error)
        return reject("native config", error.get(), message_buffer);

    expect_proof_of_reconfig();
    LOG(LOG_EVENT, "%s: Object based configuration applied successfully", function);
    write_config_status_to_orv(MSG_CONFIG_UPDATE_RSP, "Complete", "Configuration applied successfully");
    return NO_ERROR;
}
