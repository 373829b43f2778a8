#include "discovery/onboarding-request.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "agent/build-constants.h"
#include "agent/da.h"
#include "agent/debug-log.h"
#include "agent/text.h"
#include "platform/identity.h"
#include "platform/state-files.h"

#define MODULE "https-client.c"

/* A cookie's characters with the NUL. */
enum { COOKIE_SIZE = 128 };

/* Some request carried the serial number: the cloud may know this device by it. Never cleared. */
static bool serial_number_sent;

void onboarding_request_reset(void) { serial_number_sent = false; }

static void append(char (&request)[ORV_REQUEST_SIZE], const char *format, ...)
    __attribute__((format(printf, 2, 3)));

static void append(char (&request)[ORV_REQUEST_SIZE], const char *format, ...)
{
    char piece[ORV_REQUEST_PIECE_SIZE];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(piece, sizeof(piece), format, arguments);
    va_end(arguments);
    size_t used = strlen(request);
    snprintf(request + used, sizeof(request) - used, "%s", piece);
}

static void append_serial_number(char (&request)[ORV_REQUEST_SIZE])
{
    if (da.dev_info.serial_number[0]) {
        append(request, "&serialNo=%s", da.dev_info.serial_number);
        serial_number_sent = true;
    } else {
        LOG(LOG_TRACE, "%s: Serial Number not available", "build_http_get_request");
    }
}

/* Returns true when there is an account token. The file decides: a token of an earlier request may be gone.
 */
static bool append_account_token(char (&request)[ORV_REQUEST_SIZE])
{
    if (platform_find_velmora_id_token() == 0 && da.dev_info.velmora_id[0]) {
        append(request, "&velmoraId=%s:%s", da.dev_info.velmora_id, da.dev_info.velmora_token);
        return true;
    }
    LOG(LOG_TRACE, "%s: No velmora_id available", "build_http_get_request");
    return false;
}

/*
 * Ends the request line and writes the headers. Returns true when there is a cookie. The names are written as
 * the service knows them, and the request ends in CR LF LF.
 */
static bool append_headers(char (&request)[ORV_REQUEST_SIZE], const char *host, int32_t port,
                           const char *user_agent)
{
    char cookie[COOKIE_SIZE] = "";
    if (platform_get_deviceId_cookie(cookie, sizeof(cookie)) == 0) {
        copy_text(da.deviceId, cookie);
        append(request, " HTTP/1.1\r\ncookie:deviceId=%s\r\nHOST:%s:%d\r\nUser-Agent:%s\r\n\n", cookie, host,
               port, user_agent);
        return true;
    }
    append(request, " HTTP/1.1\r\nHOST:%s:%d\r\nUser-Agent:%s\r\n\n", host, port, user_agent);
    return false;
}

char *build_http_get_request(const char *host, int32_t port, char (&request)[ORV_REQUEST_SIZE])
{
    char type[IDENTITY_TEXT_SIZE] = "";
    platform_get_type(type);
    char user_agent[ORV_REQUEST_PIECE_SIZE];
    snprintf(user_agent, sizeof(user_agent), "%s (%s/%s; DA/%s)", "ovDA/1.0", type, da.dev_info.sw_version,
             DA_VERSION);
    LOG(LOG_TRACE, "dev_type [%s] sw_vers [%s] user_agent [%s]", type, da.dev_info.sw_version, user_agent);
    LOG(LOG_EVENT, "%s: orv_url [%s]", __func__, da.orv_url);

    request[0] = '\0';
    append(request, "GET /orv-onboarding/device?");
    append(request, "mac=%s", get_mac());
    append(request, "&type=%s", type);
    append_serial_number(request);
    bool token_added = append_account_token(request);
    bool cookie_added = append_headers(request, host, port, user_agent);

    bool zero_touch = platform_zero_touch_enabled();
    if (zero_touch)
        LOG(LOG_TRACE, "Attempting zero touch onboarding for this SM");
    bool on_premises = !strstr(da.orv_url, ORVANTA_CLOUD_HOST);
    if (on_premises || zero_touch || token_added || cookie_added || serial_number_sent)
        return request;
    return nullptr;
}
