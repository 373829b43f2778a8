/*
 * The certificate check of both TLS roads: the chain is verified against the system's certificates and must
 * name the host that was meant. Only certificates of the cloud controller are checked; those of controllers
 * on premises never.
 */
#pragma once

#include <openssl/ssl.h>

/*
 * Whether certificates are checked, from the controller's URL in da.orv_url and the file "ALLOW_ALL". Mind
 * the sense: -1 means that they are checked, 0 that every certificate is accepted.
 */
int allow_all_certs(void);
int platform_allow_all_certs(void);

/*
 * For SSL_CTX_set_cert_verify_callback. `host` is the address of a text (char *) with the name that was
 * meant; it is looked at when the callback runs, so it outlives the context and may change between
 * connections. Returns 1 to accept (store error 0) or 0 to refuse (store error set).
 *
 * A certificate that is not yet valid is accepted, because the device may connect before its clock is set;
 * all other checks still hold for it.
 */
int ssl_cert_verify_callback(X509_STORE_CTX *store, void *host);
