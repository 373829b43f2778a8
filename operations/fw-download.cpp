#include "operations/fw-download.h"

#include "agent/debug-log.h"
#include "agent/named-timer.h"
#include "agent/piped-child.h"
#include "operations/upgrade-state.h"
#include "platform/event-trap.h"

#define MODULE "wifi.c"

static piped_child fw_dl;
/* The second name is another one on purpose. */
static named_timer first_check = {"check fw_dl status", check_fw_dl_status_cb, nullptr};
static named_timer next_check = {"CHECK fw_dl STATUS", check_fw_dl_status_cb, nullptr};

static void log_beginning(void) { LOG(LOG_TRACE, "Inside fw_dl child process"); }

static void log_failure(int error) { LOG(LOG_FAILURE, "Failed to execvp fw_dl process errno=%d", error); }

static void disarm_checks(void)
{
    timer_disarm(first_check);
    timer_disarm(next_check);
}

static void end_child(void)
{
    child_end(fw_dl);
    disarm_checks();
}

void start_fw_dl_process(const char *url)
{
    end_child(); /* one that has reported and did not go */
    const char *vector[] = {"fw_dl", url, platform_get_event_sock_path(), nullptr};
    child_start(fw_dl, {vector, log_beginning, log_failure}, fw_dl_output_cb);
    LOG(LOG_TRACE, "Inside fw_dl parent process, child_pid %d\n", static_cast<int>(fw_dl.pid));
    timer_arm(first_check, 1);
}

void stop_fw_dl_process(void)
{
    LOG(LOG_TRACE, "%s: ENTRY upgrade/download state %d, %d", "stop_fw_dl_process", upgrade_in_progress,
        https_download_status);
    if (fw_dl.pid > 0) {
        LOG(LOG_EVENT, "Terminating fw_dl pid %d (%d,%d)", static_cast<int>(fw_dl.pid), upgrade_in_progress,
            https_download_status);
        end_child();
    }
    https_download_status = DOWNLOAD_NONE;
    if (upgrade_in_progress && !upgrade_flashing)
        end_upgrade();
}

static void log_output(const char *piece) { LOG(LOG_FAILURE, "HTTPS_fw_dl: %s", piece); }

void fw_dl_output_cb(int32_t, int32_t, void *) { child_hand_over(fw_dl, log_output); }

static void on_exited(void)
{
    LOG(LOG_EVENT, "fw_dl process exited.");
    child_hand_over_rest(fw_dl, log_output);
    if (https_download_status == DOWNLOAD_COMPLETE)
        LOG(LOG_EVENT, "Firmware download complete starting device upgrade");
    else if (https_download_status == DOWNLOAD_FAILED)
        LOG(LOG_FAILURE, "Firmware download failed");
}

void check_fw_dl_status_cb(void *)
{
    timer_fired(first_check);
    timer_fired(next_check);
    switch (child_poll(fw_dl, nullptr)) {
    case CHILD_RUNNING:
        LOG(LOG_TRACE, "fw_dl process is active");
        timer_arm(next_check, 1);
        break;
    case CHILD_REAPED: on_exited(); break;
    case CHILD_LOST: break;
    }
}

void fw_download_reset(void) { end_child(); }
