/*
 * Certificates made at run time for the tests of the TLS roads, with every flaw that a test may wish for.
 */
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include "agent/owners.h"

using pkey_ptr = std::unique_ptr<EVP_PKEY, freed_by<EVP_PKEY_free>>;
using x509_ptr = std::unique_ptr<X509, freed_by<X509_free>>;

/* A certificate and its private key. */
struct identity {
    pkey_ptr key;
    x509_ptr certificate;
};

/* What a certificate shall be like. The texts of the alternative names may contain NULs. */
struct certificate_wish {
    std::string common_name; /* none when empty */
    std::vector<std::string> dns_names;
    std::vector<std::string> email_names;
    bool is_ca = false;
    long valid_from = -86400; /* seconds from now */
    long valid_until = 86400;
    const identity *issuer = nullptr; /* null: self-signed */
    const identity *signer = nullptr; /* null: the issuer; another one forges the signature */
};

inline void add_alternative_names(X509 *certificate, const certificate_wish &wish)
{
    general_names_ptr names(sk_GENERAL_NAME_new_null());
    auto add = [&](int type, const std::string &text) {
        ASN1_IA5STRING *value = ASN1_IA5STRING_new();
        ASN1_STRING_set(value, text.data(), static_cast<int>(text.size()));
        GENERAL_NAME *name = GENERAL_NAME_new();
        GENERAL_NAME_set0_value(name, type, value);
        sk_GENERAL_NAME_push(names.get(), name);
    };
    for (const std::string &text : wish.email_names)
        add(GEN_EMAIL, text);
    for (const std::string &text : wish.dns_names)
        add(GEN_DNS, text);
    if (sk_GENERAL_NAME_num(names.get()) > 0)
        X509_add1_ext_i2d(certificate, NID_subject_alt_name, names.get(), 0, X509V3_ADD_APPEND);
}

inline void add_basic_constraints(X509 *certificate, bool is_ca)
{
    BASIC_CONSTRAINTS *constraints = BASIC_CONSTRAINTS_new();
    constraints->ca = is_ca ? 0xFF : 0;
    X509_add1_ext_i2d(certificate, NID_basic_constraints, constraints, 1, X509V3_ADD_APPEND);
    BASIC_CONSTRAINTS_free(constraints);
}

inline identity make_identity(const certificate_wish &wish)
{
    static long serial = 1;
    identity made = {pkey_ptr(EVP_EC_gen("P-256")), x509_ptr(X509_new())};
    X509 *certificate = made.certificate.get();
    X509_set_version(certificate, X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), serial++);
    X509_gmtime_adj(X509_getm_notBefore(certificate), wish.valid_from);
    X509_gmtime_adj(X509_getm_notAfter(certificate), wish.valid_until);
    X509_set_pubkey(certificate, made.key.get());
    X509_NAME *subject = X509_get_subject_name(certificate);
    X509_NAME_add_entry_by_txt(subject, "O", MBSTRING_UTF8, reinterpret_cast<const unsigned char *>("Test"),
                               -1, -1, 0);
    if (!wish.common_name.empty())
        X509_NAME_add_entry_by_NID(subject, NID_commonName, MBSTRING_UTF8,
                                   reinterpret_cast<const unsigned char *>(wish.common_name.data()),
                                   static_cast<int>(wish.common_name.size()), -1, 0);
    const identity *issuer = wish.issuer ? wish.issuer : &made;
    X509_set_issuer_name(certificate, X509_get_subject_name(issuer->certificate.get()));
    add_basic_constraints(certificate, wish.is_ca);
    add_alternative_names(certificate, wish);
    const identity *signer = wish.signer ? wish.signer : issuer;
    X509_sign(certificate, signer->key.get(), EVP_sha256());
    return made;
}

/* A root of trust. */
inline identity make_root(const std::string &name)
{
    certificate_wish wish;
    wish.common_name = name;
    wish.is_ca = true;
    return make_identity(wish);
}

/* Puts a certificate where the system's trusted ones are looked up by hash. */
inline void trust_certificate(const identity &root)
{
    char path[64];
    snprintf(path, sizeof(path), "/etc/ssl/certs/%08lx.0", X509_subject_name_hash(root.certificate.get()));
    file_ptr file(fopen(path, "we"));
    PEM_write_X509(file.get(), root.certificate.get());
}
