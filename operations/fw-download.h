/*
 * The download of a firmware image by the program `fw_dl`, found on the search path: it gets the URL and the
 * event socket's path, writes FIRMWARE_FILE and reports to the socket, which is where https_download_status
 * becomes DOWNLOAD_COMPLETE or DOWNLOAD_FAILED. A program that dies without a report leaves the status as it
 * is: the upgrade then lasts until the next registration.
 */
#pragma once

#include <cstdint>

/*
 * Starts the program, after ending one that is still there. Its output goes to the log, and "CHECK fw_dl
 * STATUS" looks each second whether it has ended. Without a pipe or a process the agent ends with status 1.
 */
void start_fw_dl_process(const char *url);

/*
 * Abandons the upgrade unless it has come to writing the flash: kills the program, if one runs, with all that
 * it has started, forgets the download's state and frees the place for another upgrade. Harmless when there
 * is none; a progress file that this agent did not write stays.
 */
void stop_fw_dl_process(void);

/* Callbacks of the program's output and of the timer. */
void fw_dl_output_cb(int32_t fd, int32_t event, void *arg);
void check_fw_dl_status_cb(void *name);

/* For tests: ends the program and its timer. */
void fw_download_reset(void);
