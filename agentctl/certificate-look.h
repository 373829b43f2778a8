/*
 * A look at a server's certificate while the agent's own check judges it. After a refusal TLS keeps nothing
 * of it, so it is taken down in the check itself.
 */
#pragma once

#include <cstdint>
#include <string>

#include <jansson.h>
#include <openssl/ssl.h>

#include "agentctl/sources.h"

struct certificate_look {
    bool seen = false;
    bool refused = false;       /* by the agent's check */
    bool not_yet_valid = false; /* its first day lies ahead: this clock is behind */
    int error = 0;              /* OpenSSL's code for the refusal */
    std::string subject, issuer;
    int64_t valid_from = 0; /* seconds since the epoch */
    int64_t valid_to = 0;
};

/* From now on a handshake of this context fills `look`; the verdict stays the agent's. `host` as there. */
void watch_certificate(SSL_CTX *context, const char *host, certificate_look *look);

/* "issued by ISSUER, 300 days left". */
std::string certificate_text(const certificate_look &look);

/* Why it was refused. */
std::string refusal_text(const certificate_look &look, const std::string &host);

/* For the report; null when none was seen. */
json_t *certificate_data(const certificate_look &look, certificate_rule rule);
