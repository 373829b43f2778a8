#include "discovery/onboarding-response.h"

#include <algorithm>
#include <cstring>

#include "agent/debug-log.h"
#include "agent/ev.h"
#include "discovery/fd-wait.h"
#include "discovery/http-header.h"
#include "discovery/tls-session.h"
#include "platform/connection-status.h"

#define MODULE "https-client.c"

static wait_outcome wait_for_bytes(const SSL *ssl)
{
    return wait_for_fd(SSL_get_fd(ssl), EV_READ, deadline_in(ORV_RESPONSE_WAIT_SECONDS));
}

static bool wants_more(int error) { return error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE; }

/* ---- the header part ---- */

enum read_step { STEP_DONE, STEP_READ_ON, STEP_WAIT, STEP_FAILED };

static int no_end_of_headers(int result)
{
    LOG(LOG_FAILURE, "Not able to find end of headers, even after 10 reads, so exiting, ret = %d", result);
    return -1;
}

/* One read, and a look for the end of the headers. */
static read_step read_some_header(SSL *ssl, onboarding_response *response)
{
    int error = SSL_ERROR_NONE;
    int room = ORV_RESPONSE_SIZE - 1 - response->received; /* the last byte stays NUL */
    int count = tls_read(ssl, response->buffer + response->received, room, &error);
    if (count == 0 && wants_more(error)) {
        LOG(LOG_TRACE, "%s try again",
            error == SSL_ERROR_WANT_READ ? "SSL_ERROR_WANT_READ" : "SSL_ERROR_WANT_WRITE");
        return STEP_WAIT;
    }
    if (count == 0) {
        LOG(LOG_FAILURE, "SSL_read Not successful %d", error);
        return STEP_FAILED;
    }
    response->received += count;
    response->buffer[response->received] = '\0';
    LOG(LOG_TRACE, "Received %d bytes", count);
    if (find_end_of_header(response->buffer, response->received, &response->body) == 0)
        return STEP_DONE;
    LOG(LOG_TRACE, "Not able to find end of header , read more data");
    if (response->received == ORV_RESPONSE_SIZE - 1) {
        no_end_of_headers(-1);
        return STEP_FAILED;
    }
    return STEP_READ_ON;
}

int read_response_header(SSL *ssl, onboarding_response *response)
{
    response->received = 0;
    response->max_tries = 0;
    wait_outcome outcome = WAIT_TIMED_OUT;
    read_step step = STEP_WAIT;
    while (step != STEP_DONE) {
        /* Bytes that TLS has already decrypted do not make the socket readable. */
        if (step == STEP_WAIT && SSL_pending(ssl) == 0) {
            if (response->max_tries == ORV_RESPONSE_WAITS)
                return no_end_of_headers(outcome);
            LOG(LOG_TRACE, "Wait for headers from router,max_tries =%d", response->max_tries);
            response->max_tries++;
            outcome = wait_for_bytes(ssl);
            if (outcome == WAIT_OVERTAKEN)
                return -1;
            if (outcome == WAIT_FAILED)
                return no_end_of_headers(outcome);
            if (outcome == WAIT_TIMED_OUT)
                continue;
        }
        step = read_some_header(ssl, response);
        if (step == STEP_FAILED)
            return -1;
        if (step == STEP_READ_ON && response->max_tries == ORV_RESPONSE_WAITS)
            step = STEP_WAIT; /* the last wait's bytes have not ended it */
    }
    return 0;
}

/* ---- the body ---- */

/* A body that is being filled. */
struct body_buffer {
    char *text;
    int32_t length;
    int32_t received;
    int32_t errors; /* fruitless reads */
};

static read_step read_some_body(SSL *ssl, body_buffer *body)
{
    int error = SSL_ERROR_NONE;
    int count = tls_read(ssl, body->text + body->received, body->length - body->received, &error);
    if (count > 0) {
        LOG(LOG_TRACE, "Received %d bytes", count);
        body->received += count;
        return body->received == body->length ? STEP_DONE : STEP_READ_ON;
    }
    if (!wants_more(error)) {
        LOG(LOG_FAILURE, "SSL_read Not successful %d", error);
        return STEP_FAILED;
    }
    LOG(LOG_TRACE, "%s try again", error == SSL_ERROR_WANT_READ ? "SSL_WANT_READ.." : "SSL_WANT_WRITE..");
    if (++body->errors > ORV_BODY_READ_ERRORS) {
        LOG(LOG_FAILURE, "max_ssl_error exceeded %d, so exiting", ORV_BODY_READ_ERRORS);
        return STEP_FAILED;
    }
    return STEP_WAIT;
}

/* Reads until the body is complete. Returns 0 or -1. */
static int fill_body(SSL *ssl, body_buffer *body)
{
    int max_tries = 0;
    read_step step = body->received == body->length ? STEP_DONE : STEP_WAIT;
    while (step != STEP_DONE) {
        if (step == STEP_WAIT && SSL_pending(ssl) == 0) {
            wait_outcome outcome = WAIT_FAILED;
            if (max_tries < ORV_RESPONSE_WAITS) {
                LOG(LOG_TRACE, "Waiting for body from Orvanta, max_tries = %d", max_tries);
                max_tries++;
                outcome = wait_for_bytes(ssl);
            }
            if (outcome == WAIT_OVERTAKEN)
                return -1;
            if (outcome == WAIT_FAILED) {
                LOG(LOG_FAILURE, "Not able to find end of headers, even after 10 reads, so exiting");
                return -1;
            }
            if (outcome == WAIT_TIMED_OUT)
                continue;
        }
        step = read_some_body(ssl, body);
        if (step == STEP_FAILED)
            return -1;
    }
    LOG(LOG_TRACE, "Received full data");
    return 0;
}

malloc_text read_response_body(SSL *ssl, const onboarding_response *response, int32_t length)
{
    malloc_text text;
    if (length <= ORV_BODY_SIZE_LIMIT)
        text.reset(static_cast<char *>(calloc(static_cast<size_t>(length) + 1, 1)));
    if (!text) {
        LOG(LOG_FAILURE, "Not able to allocate memory for response_body");
        return nullptr;
    }
    int32_t already_here = static_cast<int32_t>(response->buffer + response->received - response->body);
    body_buffer body = {text.get(), length, std::min(already_here, length), 0};
    memcpy(body.text, response->body, static_cast<size_t>(body.received));
    if (fill_body(ssl, &body) != 0)
        return nullptr;
    return text;
}

int evaluate_response_body(const char *body, int32_t length)
{
    json_error_t error;
    json_ptr object(json_loadb(body, static_cast<size_t>(length), 0, &error));
    if (!object) {
        LOG(LOG_FAILURE, "Unexpected response: JSON error  line:%d text: %s", error.line, error.text);
        return -1;
    }
    const char *message =
        json_string_value(json_object_get(json_object_get(object.get(), "error"), "message"));
    if (message) {
        LOG(LOG_FAILURE, " Received error message: [%s] from Orvanta", message);
        platform_set_orv_connection_state(ORV_ACCESS_DENIED, message);
    }
    return 0;
}
