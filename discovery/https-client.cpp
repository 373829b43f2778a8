#include "discovery/https-client.h"

#include <cstring>

#include "agent/da.h"
#include "agent/debug-log.h"
#include "agent/fatal.h"
#include "agent/text.h"
#include "discovery/http-header.h"
#include "discovery/onboarding-request.h"
#include "discovery/tcp-connect.h"
#include "discovery/tls-session.h"
#include "platform/connection-status.h"
#include "platform/parent-mac.h"
#include "platform/state-files.h"

#define MODULE "https-client.c"

static SSL_CTX *ctx; /* lives as long as the process */

/* The host of the current exchange: the context's certificate check reads it. */
static char last_router_host[128];

void https_client_init(void)
{
    SSL_CTX_free(ctx); /* null, except where a test starts again */
    ctx = tls_make_context(last_router_host).release();
    if (!ctx)
        LOG(LOG_FAILURE, "SSL ctx initialization failed ");
    fatal_assert(ctx);
}

/* What the header part says, and where the results go. */
struct onboarding_answer {
    const char **location;
    int32_t *location_length;
    const char **cookie;
    int32_t *cookie_length;
    bool redirect;  /* the status is a 302 */
    bool not_found; /* the status is a 404 */
};

/* Looks at status, location and cookie. Returns -1 when there is no location or no cookie. */
static int examine_header(const onboarding_response *response, onboarding_answer *answer)
{
    const char *text = response->buffer;
    int32_t length = static_cast<int32_t>(response->body - response->buffer);
    answer->redirect = find_HTTP_302_code(text, length) == 0;
    if (!answer->redirect) {
        answer->not_found = strstr(text, "404 Not Found") != nullptr;
        return -1;
    }
    platform_clear_velmora_id_token(); /* it is good for one redirect */
    if (find_http_location_header(text, length, answer->location, answer->location_length) != 0)
        return -1;
    return find_deviceid_cookie(text, length, answer->cookie, answer->cookie_length);
}

/* Reads the body and looks into it. Returns 0 or -1. */
static int receive_body(SSL *ssl, const onboarding_response *response, const onboarding_answer *answer,
                        int32_t content_length)
{
    malloc_text body = read_response_body(ssl, response, content_length);
    if (!body)
        return -1;
    int result = evaluate_response_body(body.get(), content_length);
    if (!answer->redirect)
        LOG(LOG_FAILURE, "Error response: [%s]", body.get());
    return result;
}

static int exchange_failed(const onboarding_response *response, int result, int error)
{
    LOG(LOG_FAILURE, "%s: max_tries %d, ret %d , error %d", "get_from_orvrouter", response->max_tries, result,
        error);
    return -1;
}

/* Everything from the header part on. Returns 0 when the exchange succeeded. */
static int receive_answer(SSL *ssl, onboarding_response *response, onboarding_answer *answer)
{
    uint32_t generation = state_generation;
    if (read_response_header(ssl, response) != 0)
        return state_generation == generation ? exchange_failed(response, -1, 0) : -1;
    int result = examine_header(response, answer);
    int error = answer->redirect ? 0 : 1;

    int32_t content_length = 0;
    find_content_length(response->buffer, static_cast<int32_t>(response->body - response->buffer),
                        &content_length);
    if (content_length < 1) {
        LOG(LOG_FAILURE, "Error, %d content_length response received", content_length);
        error = 1;
    } else {
        result = receive_body(ssl, response, answer, content_length);
        if (result != 0) {
            error = 1;
        } else if (answer->not_found) {
            LOG(LOG_FAILURE, "%s: Received 404 from Orvrouter ret=%d", "get_from_orvrouter", result);
            platform_delete_device_id_cookie();
        }
    }
    if (response->max_tries < ORV_RESPONSE_WAITS && result >= 0 && error == 0)
        return 0;
    return exchange_failed(response, result, error);
}

int get_from_orvrouter(const char *host, int32_t port, char *response, const char **location,
                       int32_t *location_length, const char **cookie, int32_t *cookie_length)
{
    fatal_assert(ctx);
    char request[ORV_REQUEST_SIZE] = "";
    if (!build_http_get_request(host, port, request)) {
        LOG(LOG_FAILURE, "Required on-boarding credentials not configured, cannot attempt on-boarding.");
        platform_set_orv_connection_state(ORV_ID_NOT_CONFIGURED, nullptr);
        return -1;
    }
    copy_text(last_router_host, host);
    fd_guard sock(tcp_connect(host, port));
    if (sock.fd < 0)
        return -1;
    LOG(LOG_TRACE, "TCP connection is successful");

    ssl_ptr ssl = tls_make_session(ctx, sock.fd, host, port); /* freed before the socket closes */
    if (!ssl || tls_handshake(ssl.get()) != 0 || tls_write(ssl.get(), request) != 0)
        return -1;
    onboarding_response received = {response, 0, response, 0};
    onboarding_answer answer = {location, location_length, cookie, cookie_length, false, false};
    if (receive_answer(ssl.get(), &received, &answer) != 0)
        return -1;
    ssl.reset();
    close(sock.release());
    platform_find_parent_mac();
    return 0;
}
