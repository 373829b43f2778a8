/*
 * Receiving the answer to the onboarding request: the header part into the caller's buffer, then the body.
 */
#pragma once

#include <cstdint>

#include "agent/owners.h"

enum {
    ORV_RESPONSE_SIZE = 4096,       /* capacity of the header part and what came with it, NUL included */
    ORV_RESPONSE_WAITS = 10,        /* waits for the header part, and again for the body */
    ORV_RESPONSE_WAIT_SECONDS = 6,  /* each of them */
    ORV_BODY_READ_ERRORS = 100,     /* fruitless reads of a body */
    ORV_BODY_SIZE_LIMIT = 16777216, /* bytes; a larger body is treated like memory that cannot be had */
};

/* What was received. */
struct onboarding_response {
    char *buffer;      /* ORV_RESPONSE_SIZE bytes of the caller's, zero-filled at first */
    int32_t received;  /* bytes in the buffer, a NUL follows them */
    const char *body;  /* the first byte after the header part */
    int32_t max_tries; /* waits used for the header part */
};

/*
 * Reads until the header part has ended. Returns 0, or -1 with a log line (without one when the pass was
 * overtaken). What has already arrived is read without waiting for it.
 */
int read_response_header(SSL *ssl, onboarding_response *response);

/*
 * Reads the rest of a body of `length` bytes, at least 1. Returns it with a NUL behind it, or null with a log
 * line (without one when the pass was overtaken).
 */
malloc_text read_response_body(SSL *ssl, const onboarding_response *response, int32_t length);

/*
 * What the service says in its body: JSON, or -1. An error message in it is published as the connection
 * status
 * ("Access Denied" and its text), and is 0 as well.
 */
int evaluate_response_body(const char *body, int32_t length);
