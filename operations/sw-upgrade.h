/*
 * The controller's firmware upgrade (101): {"url": text, "autoReboot": boolean}. The image is downloaded
 * beside the loop (operations/fw-download.h) and then written by the device's own script
 * (operations/firmware-flash.h). Each stage is told with a 401, a failure with a 701.
 */
#pragma once

#include <jansson.h>

enum { FW_URL_SIZE = 2048 };

extern char fw_url[FW_URL_SIZE]; /* the URL of the last request, a longer one cut */

/* Reads a request: the URL goes to `url`, a boolean "autoReboot" to da.auto_reboot, which another request
 * leaves alone. 0, or BAD_REQUEST with the text set. */
int parse_sw_upgrade_request(const json_t *request, char (&url)[FW_URL_SIZE], char *message_buffer);

/*
 * Begins the upgrade. 0: it has begun. BAD_REQUEST: the URL does not begin with "https".
 * FW_UPDATE_IN_PROGRESS: one is in progress, or the progress file is there, whoever wrote it.
 */
int platform_sw_update(const char *url, char *message_buffer);

/* Callback of "CHECK_DL_COMPLETE", every 2 s while the download runs. When it is complete the image is
 * written, which holds the loop up until the script has ended. */
void check_dl_complete_cb(void *name);

/* Callback of "CHECK_UPGRADE_COMPLETE": tells the controller every 180 s that the download goes on. */
void check_upgrade_complete_cb(void *name);

/* For tests: forgets the upgrade with all its timers and ends the download. */
void sw_upgrade_reset(void);
