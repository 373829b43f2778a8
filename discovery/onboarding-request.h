/*
 * The onboarding request: who this device is, for the service that knows its controller.
 */
#pragma once

#include <cstdint>

enum {
    ORV_REQUEST_SIZE = 4096,      /* the whole request with its NUL */
    ORV_REQUEST_PIECE_SIZE = 513, /* each appended piece with its NUL; longer ones are cut */
};

/*
 * Writes the request for the candidate host:port into the buffer. Reads the account token and the deviceId
 * cookie afresh from their files; a stored cookie also becomes da.deviceId. Returns the buffer, or null when
 * the candidate is the cloud and the device has nothing that the cloud could know it by (serial number,
 * account token or cookie).
 */
char *build_http_get_request(const char *host, int32_t port, char (&request)[ORV_REQUEST_SIZE]);

/* Forgets that a serial number was ever sent, for tests. */
void onboarding_request_reset(void);
