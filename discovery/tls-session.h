/*
 * One TLS session over a non-blocking socket: handshake, one write, reads. Every call leaves OpenSSL's error
 * queue clean for the websocket library, which shares it.
 */
#pragma once

#include <cstdint>

#include "agent/owners.h"

enum {
    TLS_HANDSHAKE_WAIT_SECONDS = 15, /* each wait of the handshake */
    TLS_HANDSHAKE_SECONDS = 60,      /* all of it: a peer that drips bytes may not hold the loop */
    TLS_WRITE_WAIT_SECONDS = 6,      /* each wait of the write */
    TLS_WRITE_TRIES = 10,            /* of a write that goes on wanting something on a writable socket */
};

/*
 * The context of the process's onboarding exchanges: TLS 1.2 or later, certificates verified by
 * ssl_cert_verify_callback for the host whose text is at `host` when that runs. Null when it cannot be had.
 */
ssl_ctx_ptr tls_make_context(char *host);

/* Loads the trusted certificates, makes a session over the socket and names the host to the server. Null on
 * failure. */
ssl_ptr tls_make_session(SSL_CTX *context, int fd, const char *host, int32_t port);

/* Returns 0 when the handshake is done and the certificate accepted, else -1 with a log line. */
int tls_handshake(SSL *ssl);

/* Writes the whole text. Returns 0, or -1 with a log line. */
int tls_write(SSL *ssl, const char *text);

/*
 * One SSL_read of at most `size` bytes, without waiting. Returns the number of bytes, at least 1, or 0 with
 * OpenSSL's verdict (SSL_ERROR_...) in `error`.
 */
int tls_read(SSL *ssl, char *out, int size, int *error);
