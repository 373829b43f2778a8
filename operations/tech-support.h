/*
 * The controller's request for a tech-support archive (113): {"url", "filename", "contentType"}, all texts.
 * The device's script makes the archive, the program `s3upload`, found on the search path, uploads it beside
 * the loop; what became of it comes as an event of that program. 114 stops the upload and is answered with
 * 414, or 714 when it cannot be stopped.
 */
#pragma once

#include <cstdint>

#include <jansson.h>

#define TECH_SUPPORT_FILE "/tmp/techsupport.tar.gz"

extern int32_t upload_in_progress; /* 1 from the start of the upload until it has ended or been stopped */

/*
 * Handler of 113; the caller has seen that no upload is in progress. 0: the upload has begun. BAD_REQUEST: a
 * member is missing or no text. INTERNAL_ERROR: no request. Holds the loop up until the archive is made.
 */
int parse_tech_support_request(const json_t *request, char *message_buffer);

const char *platform_get_tech_support_file_name(void);

/*
 * Makes the archive, anew and for root's eyes alone: the place is taken first, so that nobody's link is
 * followed. The heartbeat goes on meanwhile and signals are served. Returns 0 whatever comes of it: an
 * archive that is not there, or not whole, shows at the other end.
 */
int platform_gen_tech_support(void);

/* Starts the upload. Without a pipe or a process the agent ends with status 1. */
void platform_start_upload(const char *url, const char *filename, const char *content_type);

/* Stops the upload, with all that it has started, and answers; also when there is none. Returns 0, or -1 when
 * it could not be stopped: it then runs on. */
int abort_tech_support_upload(void);

/* The answer to 114, 414 when `ok` is 1, else 714. Returns what write_to_orv returns, -1 when the message
 * cannot be serialised. */
int build_and_send_tech_support_abort_response(int ok);

/* Callbacks of the program's output and of "CHECK UPLOAD STATUS". */
void upload_output_cb(int32_t fd, int32_t event, void *arg);
void check_upload_status_cb(void *name);

/* Ends the upload, if one runs, and its timer. */
void tech_support_reset(void);
