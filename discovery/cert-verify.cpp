#include "discovery/cert-verify.h"

#include <cstring>

#include <openssl/err.h>

#include "agent/build-constants.h"
#include "agent/da.h"
#include "agent/debug-log.h"
#include "agent/utils.h"
#include "discovery/hostname-validation.h"
#include "platform/state-files.h"

#define MODULE "https-client.c"

int allow_all_certs(void)
{
    if (!strstr(da.orv_url, ORVANTA_CLOUD_HOST)) {
        LOG(LOG_FAILURE, "Non-velmora/cloud Orvanta URL [%s], disabling Server Cert check", da.orv_url);
        return 0;
    }
    if (file_exists(ALLOW_ALL_FILE) != 0) {
        LOG(LOG_EVENT, "Server cert validation is enabled");
        return -1;
    }
    LOG(LOG_NOTABLE, "Server cert validation is turned off");
    return 0;
}

int platform_allow_all_certs(void) { return allow_all_certs(); }

/*
 * Called by the chain check for each finding. "Not yet valid" lets it go on: signatures are checked from the
 * root down together with the dates, so stopping here and forgiving afterwards would accept a certificate
 * that nobody signed. Any other error stops the check and is the one that remains in the store.
 */
static int tolerate_not_yet_valid(int ok, X509_STORE_CTX *store)
{
    if (!ok && X509_STORE_CTX_get_error(store) == X509_V_ERR_CERT_NOT_YET_VALID)
        return 1;
    return ok;
}

/* True when the chain is good, or good but for being not yet valid. */
static bool chain_is_verified(X509_STORE_CTX *store)
{
    X509_STORE_CTX_set_verify_cb(store, tolerate_not_yet_valid);
    bool verified = X509_verify_cert(store) > 0;
    int error = X509_STORE_CTX_get_error(store);
    if (!verified && error == X509_V_OK) {
        error =
            X509_V_ERR_UNSPECIFIED; /* it failed before it could say why: memory, a second use of the store */
        X509_STORE_CTX_set_error(store, error);
    }
    if (error != X509_V_OK)
        LOG(LOG_FAILURE, "Server certificated validation failed errno = %d, err =  %s", error,
            X509_verify_cert_error_string(error));
    if (verified && error == X509_V_ERR_CERT_NOT_YET_VALID) {
        LOG(LOG_FAILURE, "Certificate is not yet valid, check the certificate host name ");
        X509_STORE_CTX_set_error(store, X509_V_OK);
    }
    return verified;
}

int ssl_cert_verify_callback(X509_STORE_CTX *store, void *host)
{
    if (platform_allow_all_certs() == 0) {
        LOG(LOG_TRACE, "Allowing all certificates");
        X509_STORE_CTX_set_error(store, X509_V_OK);
        return 1;
    }
    if (!chain_is_verified(store))
        return 0;

    /* The server's own certificate, wherever in the chain the check ended. */
    const X509 *certificate = X509_STORE_CTX_get0_cert(store);
    const char *host_name = static_cast<const char *>(host);
    char subject[4096] = "";
    if (certificate)
        X509_NAME_oneline(X509_get_subject_name(certificate), subject, sizeof(subject));
    host_match result = validate_hostname(host_name, certificate);
    if (result == HOST_MATCH_FOUND) {
        LOG(LOG_TRACE, "https server '%s' has this certificate, which looks good to me:\n%s\n", host_name,
            subject);
        X509_STORE_CTX_set_error(store, X509_V_OK);
        return 1;
    }
    LOG(LOG_FAILURE, "Got '%s' for hostname '%s' and certificate:\n%s\n", host_match_name(result),
        host_name ? host_name : "", subject);
    X509_STORE_CTX_set_error(store, X509_V_ERR_SUBJECT_ISSUER_MISMATCH);
    return 0;
}
