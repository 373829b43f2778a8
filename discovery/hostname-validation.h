/*
 * Does a certificate name the host that was meant? DNS names of the subject alternative names count; the
 * common name only where the certificate has no such extension.
 */
#pragma once

#include <openssl/x509.h>

enum host_match {
    HOST_MATCH_FOUND = 0,
    HOST_MATCH_NOT_FOUND = 1,
    HOST_NO_SAN_PRESENT = 2, /* never a final result */
    HOST_MALFORMED_CERTIFICATE = 3,
    HOST_MATCH_ERROR = 4,
};

/* Looks for the host in the certificate; null for either is HOST_MATCH_ERROR. */
host_match validate_hostname(const char *host, const X509 *certificate);

/*
 * 1 when a name of a certificate stands for the host, else 0. Equal texts match (ASCII letters in either
 * case). One
 * "*" in the first label stands for one or more characters of the host's first label, when two labels or more
 * follow and the name does not begin with "xn--"; otherwise it is an ordinary character.
 */
int Curl_cert_hostcheck(const char *pattern, const char *host);

/* "MatchFound" and so on, for the log; "WTF!" for what is no result. */
const char *host_match_name(int result);
