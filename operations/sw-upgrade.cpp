#include "operations/sw-upgrade.h"

#include <cstring>

#include <unistd.h>

#include "agent/da.h"
#include "agent/debug-log.h"
#include "agent/named-timer.h"
#include "agent/reasons.h"
#include "agent/text.h"
#include "agent/utils.h"
#include "operations/firmware-flash.h"
#include "operations/fw-download.h"
#include "operations/upgrade-state.h"
#include "platform/event-trap.h"
#include "protocol/error-codes.h"
#include "protocol/message.h"
#include "protocol/replies.h"

#define MODULE "wifi.c"

/* Seconds. */
enum {
    DL_CHECK_PERIOD = 2,
    ONGOING_PERIOD = 180,
};

char fw_url[FW_URL_SIZE];

static named_timer dl_check_timer = {"CHECK_DL_COMPLETE", check_dl_complete_cb, nullptr};

static int refuse(char *message_buffer, int status, const char *text)
{
    set_error_text(message_buffer, "%s", text);
    LOG(LOG_FAILURE, "%s", text);
    return status;
}

int parse_sw_upgrade_request(const json_t *request, char (&url)[FW_URL_SIZE], char *message_buffer)
{
    if (!request)
        return refuse(message_buffer, BAD_REQUEST,
                      "Not able to parse the Software Update request from Orvanta");
    const char *text = json_string_value(json_object_get(request, "url"));
    if (!text)
        return refuse(message_buffer, BAD_REQUEST, "Software upgrade url info not found on JSON");
    copy_text(url, text);
    const json_t *auto_reboot = json_object_get(request, "autoReboot");
    if (json_is_boolean(auto_reboot))
        da.auto_reboot = json_is_true(auto_reboot) ? 1 : 0;
    return NO_ERROR;
}

static void arm_ongoing_timer(void)
{
    static char name[] = "CHECK_UPGRADE_COMPLETE";
    del_orv_upd_timer();
    orv_upd_timer = ev_add_timer(check_upgrade_complete_cb, name, ONGOING_PERIOD, 0);
}

int platform_sw_update(const char *url, char *message_buffer)
{
    if (upgrade_in_progress || file_exists(UPGRADE_PROGRESS_FILE) == 0)
        return refuse(message_buffer, FW_UPDATE_IN_PROGRESS,
                      "Another upgrade in progress, please try after some time");
    LOG(LOG_TRACE, "str_upd_link= [%s]", url);
    if (strncmp(url, "https", strlen("https")) != 0)
        return refuse(message_buffer, BAD_REQUEST, "Firmware download over HTTP is not supported");

    take_waiting_events(); /* a report of the download before must not count for this one */
    start_fw_dl_process(url);
    upgrade_in_progress = 1;
    platform_write_upgrade_progress("Upgrade initiated");
    https_download_status = DOWNLOAD_RUNNING;
    (void)build_and_send_sw_update_state(MSG_SW_UPGRADE_RSP, "Initiated", "Downloading firmware");
    timer_arm(dl_check_timer, DL_CHECK_PERIOD);
    arm_ongoing_timer();
    return NO_ERROR;
}

static void on_download_complete(void)
{
    LOG(LOG_EVENT, "Firmware download complete");
    del_orv_upd_timer();
    platform_write_upgrade_progress("Firmware file ready, now updating device");
    (void)build_and_send_sw_update_state(MSG_SW_UPGRADE_RSP, "InProgress", "Writing firmware to flash");
    https_download_status = DOWNLOAD_NONE;
    (void)platform_do_upgrade();
}

static void on_download_failed(void)
{
    LOG(LOG_FAILURE, "Firmware download failed");
    (void)build_and_send_sw_update_state(MSG_SW_UPGRADE_FAILURE, "DownloadFailed",
                                         "SW update file download failed");
    del_orv_upd_timer();
    end_upgrade();
}

void check_dl_complete_cb(void *)
{
    timer_fired(dl_check_timer);
    /* A report that was under way when the upgrade was abandoned sets a status, too. */
    switch (upgrade_in_progress ? https_download_status : int32_t{DOWNLOAD_NONE}) {
    case DOWNLOAD_RUNNING:
        LOG(LOG_TRACE, "Firmware download in progress");
        timer_arm(dl_check_timer, DL_CHECK_PERIOD);
        break;
    case DOWNLOAD_COMPLETE: on_download_complete(); break;
    case DOWNLOAD_FAILED: on_download_failed(); break;
    default: LOG(LOG_EVENT, "Firmware upgrade not initated or stopped"); break;
    }
}

void check_upgrade_complete_cb(void *)
{
    orv_upd_timer = nullptr;
    if (!upgrade_in_progress)
        return;
    LOG(LOG_TRACE, "Firmware upgrade in progress");
    (void)build_and_send_sw_update_state(MSG_SW_UPGRADE_RSP, "OnGoing", "Upgrade in progress");
    arm_ongoing_timer();
}

void sw_upgrade_reset(void)
{
    fw_download_reset();
    timer_disarm(dl_check_timer);
    del_orv_upd_timer();
    https_download_status = DOWNLOAD_NONE;
    upgrade_in_progress = 0;
    upgrade_flashing = 0;
    (void)unlink(UPGRADE_PROGRESS_FILE);
    firmware_flash_reset();
}
