#include "discovery/tls-session.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <openssl/err.h>

#include "agent/debug-log.h"
#include "agent/ev.h"
#include "discovery/cert-verify.h"
#include "discovery/fd-wait.h"
#include "platform/state-files.h"

#define MODULE "https-client.c"

ssl_ctx_ptr tls_make_context(char *host)
{
    /* No configuration file: the environment may not steer the agent. */
    OPENSSL_init_ssl(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr);
    ssl_ctx_ptr context(SSL_CTX_new(TLS_client_method()));
    if (context && SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION) != 1)
        context.reset();
    if (context) {
        SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
        SSL_CTX_set_cert_verify_callback(context.get(), ssl_cert_verify_callback, host);
    }
    ERR_clear_error();
    return context;
}

ssl_ptr tls_make_session(SSL_CTX *context, int fd, const char *host, int32_t port)
{
    ERR_clear_error();
    /* Certificates are looked up in the folder by hash as they are needed; naming it again adds nothing. */
    SSL_CTX_load_verify_dir(context, platform_ca_certs_path());
    LOG(LOG_TRACE, "Create SSL context, ca certs path is %s", platform_ca_certs_path());
    ssl_ptr ssl(SSL_new(context));
    if (!ssl || SSL_set_fd(ssl.get(), fd) != 1) {
        LOG(LOG_FAILURE, "SSL ctx creation failed");
        ERR_clear_error();
        return nullptr;
    }
    if (SSL_set_tlsext_host_name(ssl.get(), host) != 1)
        LOG(LOG_FAILURE, "Not able to set SSL_set_tlsext_host_name");
    LOG(LOG_EVENT, "Openssl connection to %s : %d \n", host, port);
    ERR_clear_error();
    return ssl;
}

/* SSL_get_error for a call that has just failed; empties the queue that it looked at. */
static int verdict(const SSL *ssl, int result)
{
    int error = SSL_get_error(ssl, result);
    ERR_clear_error();
    return error;
}

/* Waits for what the handshake wants. False when there is nothing left to wait for. */
static bool wait_in_handshake(const SSL *ssl, int error, int64_t deadline)
{
    bool wants_read = error == SSL_ERROR_WANT_READ;
    LOG(LOG_TRACE, "%s try again", wants_read ? "SSL_ERROR_WANT_READ" : "SSL_ERROR_WANT_WRITE");
    int64_t limit = std::min(deadline, deadline_in(TLS_HANDSHAKE_WAIT_SECONDS));
    return wait_for_fd(SSL_get_fd(ssl), wants_read ? EV_READ : EV_WRITE, limit) == WAIT_READY;
}

static int finish_handshake(SSL *ssl)
{
    int64_t deadline = deadline_in(TLS_HANDSHAKE_SECONDS);
    for (;;) {
        ERR_clear_error();
        int result = SSL_connect(ssl);
        if (result == 1) {
            ERR_clear_error(); /* tolerated findings of the certificate check */
            return 0;
        }
        int error = verdict(ssl, result);
        if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE) {
            LOG(LOG_FAILURE, "SSL_connect Not successful %d", error);
            return -1;
        }
        if (!wait_in_handshake(ssl, error, deadline)) {
            LOG(LOG_FAILURE, "SSL_connect Not successful");
            return -1;
        }
    }
}

int tls_handshake(SSL *ssl)
{
    if (finish_handshake(ssl) != 0)
        return -1;
    LOG(LOG_EVENT, "SSL_connect successful");
    long result = SSL_get_verify_result(ssl);
    if (result != X509_V_OK) {
        LOG(LOG_FAILURE, "server's cert didn't look good %d\n", static_cast<int>(result));
        return -1;
    }
    LOG(LOG_TRACE, "Server certificate is verified and it is valid");
    return 0;
}

int tls_write(SSL *ssl, const char *text)
{
    int length = static_cast<int>(strlen(text));
    int written = 0;
    for (int tries = 0; tries < TLS_WRITE_TRIES; tries++) {
        ERR_clear_error();
        written = SSL_write(ssl, text, length);
        if (written > 0)
            break;
        int error = verdict(ssl, written);
        if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE)
            break;
        LOG(LOG_TRACE, "SSL_ERROR_WANT_READ/WRITE try again");
        if (wait_for_fd(SSL_get_fd(ssl), EV_WRITE, deadline_in(TLS_WRITE_WAIT_SECONDS)) != WAIT_READY)
            break;
    }
    if (written <= 0) {
        LOG(LOG_FAILURE, "SSL write not successful ");
        return -1;
    }
    LOG(LOG_TRACE, "SSL write %d bytes", written);
    return 0;
}

int tls_read(SSL *ssl, char *out, int size, int *error)
{
    ERR_clear_error();
    int count = SSL_read(ssl, out, size);
    if (count > 0) {
        *error = SSL_ERROR_NONE;
        return count;
    }
    *error = verdict(ssl, count);
    return 0;
}
