/*
 * The onboarding request, asked without the agent's consequences: the account token is left out, for it is
 * good for one redirect only; no cookie is saved or deleted.
 */
#pragma once

#include <cstdint>
#include <string>

#include <jansson.h>
#include <openssl/ssl.h>

struct onboarding_finding {
    const char *outcome; /* of agentctl/check-step.h */
    std::string detail;
    std::string controller_url; /* when the outcome is good */
    json_t *data;               /* the caller's; may be null */
};

/* One request over the session. */
onboarding_finding ask_onboarding(SSL *ssl, const char *host, int32_t port);

/* Takes the account token out of a request; returns whether there was one. */
bool leave_out_token(std::string *request);

/* The time of the header Date in seconds since the epoch, 0 when there is none. */
int64_t http_date(const std::string &header);
