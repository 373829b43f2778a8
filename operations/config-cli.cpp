#include <string_view>

#include "agent/debug-log.h"
#include "operations/clish.h"
#include "operations/config-files.h"
#include "operations/config-forms.h"
#include "operations/config-reboot.h"
#include "operations/config-restore.h"
#include "platform/state-files.h"
#include "protocol/error-codes.h"
#include "protocol/message.h"
#include "protocol/replies.h"

#define MODULE "wifi.c"

static std::string_view text_of(const json_t *config)
{
    return {json_string_value(config), json_string_length(config)};
}

static void send_in_progress(void) { tell_config_status("InProgress", "Config update in progress"); }

/* ---- the whole configuration ---- */

int overwrite_cli_config(const json_t *config, char *message_buffer)
{
    config_copied backup = backup_config();
    if (backup == COPY_FAILED)
        return config_not_writable(message_buffer);
    reconfig_pending = 0;
    LOG(LOG_TRACE, "Writing RX'd CFG to file");
    LOG(LOG_TRACE, "%s: Overwriting running config with that received from Orvanta", "platform_set_config");
    send_in_progress();
    if (store_config(text_of(config)) != 0) {
        LOG(LOG_FAILURE, "Not able to create the config file");
        if (backup == COPY_DONE) /* an older backup is not what was here a moment ago */
            (void)restore_config_backup();
        return config_not_writable(message_buffer);
    }
    LOG(LOG_EVENT, "Rebooting device in 10 seconds to apply new config");
    write_config_status_to_orv(MSG_CONFIG_UPDATE_RSP, "CompleteWithReboot",
                               "Rebooting device to apply new configuration");
    start_config_reboot(CONFIG_UNPROVEN);
    platform_mark_device_reconfigured();
    return NO_ERROR;
}

/* ---- a part ---- */

int platform_apply_partial_config(void)
{
    LOG(LOG_EVENT, "Applying new cfg");
    run_clish("-f", PARTIAL_CONFIG_FILE);
    run_clish("-e", "save");
    return 0;
}

int apply_partial_cli_config(const json_t *config, char *message_buffer)
{
    if (backup_config() == COPY_FAILED)
        return config_not_writable(message_buffer);
    LOG(LOG_TRACE, "Writing RX'd partial CFG to file");
    if (store_partial_config(text_of(config)) != 0) {
        LOG(LOG_FAILURE, "Not able to create partial config file");
        return config_not_writable(message_buffer);
    }
    send_in_progress();
    if (platform_apply_partial_config() != 0) {
        LOG(LOG_FAILURE, "Not able to apply partial config");
        return BAD_REQUEST;
    }
    write_config_status_to_orv(MSG_CONFIG_UPDATE_RSP, "Complete", "Configuration applied successfully");
    LOG(LOG_EVENT, "Applied new partial config");
    expect_proof_of_reconfig();
    platform_mark_device_reconfigured();
    return NO_ERROR;
}
