/*
 * One exchange over HTTPS with libcurl, as both programs want it: TLS 1.2 or later, the server's certificate
 * checked against "/etc/ssl/certs/" (looked up by hash) and its name against the URL's, redirects within
 * HTTPS, no proxy, nothing decompressed, nothing stored between runs.
 *
 * A certificate that is not valid yet is accepted, as everywhere in the agent, because the device may not
 * have set its clock; all else about it still holds. That is all the more right here, where the image is
 * signed.
 */
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <curl/curl.h>

#include "agent/owners.h"

enum {
    CONNECT_SECONDS = 30, /* for name, connection and handshake of one host */
    STALL_SECONDS = 60,   /* a try that is slower than STALL_RATE for so long has stalled */
    STALL_RATE = 100,     /* bytes a second */
    REDIRECTS_LIMIT = 5,
};

using curl_ptr = std::unique_ptr<CURL, freed_by<curl_easy_cleanup>>;
using curl_list_ptr = std::unique_ptr<struct curl_slist, freed_by<curl_slist_free_all>>;

/* Once per process, before anything else of this. Returns 0 or -1. */
int session_init(void);

/* Frees what session_init has made. */
void session_exit(void);

/* A transfer of this URL with all that is said above, for `error` to be filled (CURL_ERROR_SIZE bytes, which
 * outlive it). Null when there is no memory. */
curl_ptr session_make(const char *url, char *error);

/* Runs it until it is over, a signal to stop has come (CURLE_ABORTED_BY_CALLBACK), or the deadline of the
 * monotonic clock in milliseconds has passed (CURLE_OPERATION_TIMEDOUT). */
CURLcode session_run(CURL *transfer, int64_t deadline);

/* One further header to send, "Name: value". Returns 0, or -1 when there is no memory. */
int session_header(curl_list_ptr *list, const std::string &line);

/* How a failure of libcurl's ends the program, or 0 when another try may help. */
int session_final_status(CURLcode result);

/* The failure for people: libcurl's own words, or ours where they are no help. `redirected`: the last answer
 * was a redirect. */
std::string session_reason(CURLcode result, const char *error, bool redirected);

/* Null when the URL is one that may be used, or what is wrong with it. */
const char *url_complaint(const char *url);

/* The URL for people: without credentials and without its query, which may be a secret. */
std::string url_for_people(const char *url);
