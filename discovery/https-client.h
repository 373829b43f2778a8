/*
 * The onboarding exchange: one HTTPS request that asks a candidate host which controller manages this device.
 * It uses a plain socket and a TLS session of its own and blocks the loop, within the bounds of its steps: 15
 * s to connect, 60 s for the handshake, 60 s to write, 60 s each for the header part and the body.
 */
#pragma once

#include <cstdint>

#include "discovery/onboarding-response.h"

/* Makes the TLS context; the agent cannot live without one and ends. Called once at start. */
void https_client_init(void);

/*
 * Asks host:port. `response` is ORV_RESPONSE_SIZE bytes, zero-filled; the location and the cookie point into
 * it and are written, with their lengths, only where the answer has them: the caller starts both lengths at
 * 0. Returns 0 when the answer was a complete redirect, else -1. A pass that was overtaken by a signal gives
 * -1 and changes nothing.
 */
int get_from_orvrouter(const char *host, int32_t port, char *response, const char **location,
                       int32_t *location_length, const char **cookie, int32_t *cookie_length);
