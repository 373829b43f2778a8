#include "operations/tech-support.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

#include "agent/debug-log.h"
#include "agent/named-timer.h"
#include "agent/owners.h"
#include "agent/piped-child.h"
#include "agent/run.h"
#include "agent/txq.h"
#include "platform/event-trap.h"
#include "protocol/error-codes.h"
#include "protocol/message.h"

#define MODULE "tech-support.c"

int32_t upload_in_progress;

static piped_child upload;
static named_timer check_timer = {"CHECK UPLOAD STATUS", check_upload_status_cb, nullptr};

/* ---- the archive ---- */

const char *platform_get_tech_support_file_name(void) { return TECH_SUPPORT_FILE; }

/* A fresh file of ours: nobody else can take it away from a folder like "/tmp", or lay a link in its place.
 */
static int take_place(void)
{
    (void)unlink(TECH_SUPPORT_FILE);
    fd_guard file(open(TECH_SUPPORT_FILE, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    return file.fd >= 0 ? 0 : -1;
}

int platform_gen_tech_support(void)
{
    static const char function[] = "platform_gen_tech_support";
    if (take_place() != 0) {
        LOG(LOG_FAILURE, "%s: %s: %s", function, TECH_SUPPORT_FILE, strerror(errno));
        return 0;
    }
    flush_txq(); /* answers to earlier requests do not wait for it */
    int status = run_shell("/usr/bin/scripts/techsupport.sh | gzip > " TECH_SUPPORT_FILE);
    if (status != 0)
        LOG(LOG_FAILURE, "%s: The archive was not made, status %d", function, status);
    return 0;
}

/* ---- the upload ---- */

static void log_beginning(void) { LOG(LOG_TRACE, "Inside upload child process"); }

static void log_failure(int error) { LOG(LOG_FAILURE, "Failed to execvp s3upload process errno=%d", error); }

void platform_start_upload(const char *url, const char *filename, const char *content_type)
{
    const char *vector[] = {"s3upload",   url,      platform_get_tech_support_file_name(),
                            content_type, filename, platform_get_event_sock_path(),
                            nullptr};
    child_start(upload, {vector, log_beginning, log_failure}, upload_output_cb);
    LOG(LOG_TRACE, "Inside Upload parent process %d\n", static_cast<int>(upload.pid));
    upload_in_progress = 1;
    timer_arm(check_timer, 1);
}

static void log_output(const char *piece) { LOG(LOG_TRACE, "Upload_log:%s", piece); }

void upload_output_cb(int32_t, int32_t, void *) { child_hand_over(upload, log_output); }

static void on_exited(void)
{
    LOG(LOG_EVENT, "Upload process exited .");
    child_hand_over_rest(upload, log_output);
    upload_in_progress = 0;
}

void check_upload_status_cb(void *)
{
    timer_fired(check_timer);
    switch (child_poll(upload, nullptr)) {
    case CHILD_RUNNING:
        LOG(LOG_TRACE, "Upload process is active");
        timer_arm(check_timer, 1);
        break;
    case CHILD_REAPED: on_exited(); break;
    case CHILD_LOST: break;
    }
}

/* ---- the requests ---- */

struct wanted_text {
    const char *key, *complaint;
};
enum { URL, FILENAME, CONTENT_TYPE, WANTED_COUNT };
static const wanted_text wanted[WANTED_COUNT] = {
    {"url", "S3 upload url is missing"},
    {"filename", "S3 upload filename is missing"},
    {"contentType", "S3 upload file content_type is missing"},
};

static int refuse(char *message_buffer, int status, const char *text)
{
    set_error_text(message_buffer, "%s", text);
    LOG(LOG_FAILURE, "%s", text);
    return status;
}

int parse_tech_support_request(const json_t *request, char *message_buffer)
{
    if (!request)
        return refuse(message_buffer, INTERNAL_ERROR, "jobj is NULL, ideally this should never happen");
    const char *texts[WANTED_COUNT];
    for (int i = 0; i < WANTED_COUNT; i++) {
        texts[i] = json_string_value(json_object_get(request, wanted[i].key));
        if (!texts[i])
            return refuse(message_buffer, BAD_REQUEST, wanted[i].complaint);
    }
    (void)platform_gen_tech_support();
    LOG(LOG_TRACE, "S3 upload url = %s ", texts[URL]);
    LOG(LOG_TRACE, "S3 file = %s ", texts[FILENAME]);
    LOG(LOG_TRACE, "S3 content-type = %s ", texts[CONTENT_TYPE]);
    platform_start_upload(texts[URL], texts[FILENAME], texts[CONTENT_TYPE]);
    return NO_ERROR;
}

int build_and_send_tech_support_abort_response(int ok)
{
    static const char function[] = "build_and_send_tech_support_abort_response";
    malloc_text text =
        dump_message(new_message(ok == 1 ? MSG_TECH_SUPPORT_RSP : MSG_TECH_SUPPORT_ABORT_FAILURE), function);
    if (text)
        LOG(LOG_TRACE, "%s: JSON Object: [%s]", function, text.get());
    return queue_text(text);
}

int abort_tech_support_upload(void)
{
    if (upload.pid > 0) {
        LOG(LOG_EVENT, "Stopping upload proceess %d ", static_cast<int>(upload.pid));
        if (child_kill(upload) != 0) {
            LOG(LOG_FAILURE, "Failed to kill tech support upload process %s", strerror(errno));
            (void)build_and_send_tech_support_abort_response(0);
            return -1;
        }
        tech_support_reset();
    }
    (void)build_and_send_tech_support_abort_response(1);
    return 0;
}

void tech_support_reset(void)
{
    child_end(upload);
    timer_disarm(check_timer);
    upload_in_progress = 0;
}
