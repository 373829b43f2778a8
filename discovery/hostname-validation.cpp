#include "discovery/hostname-validation.h"

#include <cstring>
#include <string>

#include <openssl/x509v3.h>

#include "agent/owners.h"

/* ---- texts without regard to ASCII case ---- */

static char upper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

/* The first n characters are equal, or both texts end together before that. */
static bool equal_prefix(const char *a, const char *b, size_t n)
{
    for (size_t i = 0; i < n; i++) {
        if (upper(a[i]) != upper(b[i]))
            return false;
        if (a[i] == '\0')
            return true;
    }
    return true;
}

static bool equal_texts(const char *a, const char *b) { return equal_prefix(a, b, strlen(a) + 1); }

/* ---- one name ---- */

/* The "*" of a name that may be used as a wildcard, else null. */
static const char *usable_wildcard(const char *pattern)
{
    const char *star = strchr(pattern, '*');
    const char *first_dot = strchr(pattern, '.');
    if (!star || !first_dot || !strchr(first_dot + 1, '.') || star > first_dot ||
        equal_prefix(pattern, "xn--", 4))
        return nullptr;
    return star;
}

int Curl_cert_hostcheck(const char *pattern, const char *host)
{
    if (!pattern || !*pattern || !host || !*host)
        return 0;
    if (equal_texts(pattern, host))
        return 1;
    const char *star = usable_wildcard(pattern);
    if (!star)
        return 0; /* compared as it stands, which has been done */

    const char *pattern_rest = strchr(pattern, '.');
    const char *host_rest = strchr(host, '.');
    if (!host_rest || !equal_texts(pattern_rest, host_rest))
        return 0;
    if (host_rest - host < pattern_rest - pattern)
        return 0; /* nothing left that the "*" could stand for */
    size_t before = static_cast<size_t>(star - pattern);
    size_t after = static_cast<size_t>(pattern_rest - (star + 1));
    return equal_prefix(pattern, host, before) && equal_prefix(star + 1, host_rest - after, after);
}

/* ---- one certificate ---- */

/* Compares one name of a certificate. A NUL inside it is an attempt to look like a shorter name. */
static host_match match_name(const char *host, const ASN1_STRING *name)
{
    std::string text(reinterpret_cast<const char *>(ASN1_STRING_get0_data(name)),
                     static_cast<size_t>(ASN1_STRING_length(name)));
    if (strlen(text.c_str()) != text.size())
        return HOST_MALFORMED_CERTIFICATE;
    return Curl_cert_hostcheck(text.c_str(), host) ? HOST_MATCH_FOUND : HOST_MATCH_NOT_FOUND;
}

static host_match match_alternative_names(const char *host, const X509 *certificate)
{
    int critical = -1;
    general_names_ptr names(static_cast<GENERAL_NAMES *>(
        X509_get_ext_d2i(certificate, NID_subject_alt_name, &critical, nullptr)));
    if (!names) /* -1 says that there is none; otherwise it is there twice or cannot be read */
        return critical == -1 ? HOST_NO_SAN_PRESENT : HOST_MALFORMED_CERTIFICATE;
    for (int i = 0; i < sk_GENERAL_NAME_num(names.get()); i++) {
        const GENERAL_NAME *name = sk_GENERAL_NAME_value(names.get(), i);
        if (name->type != GEN_DNS)
            continue;
        host_match result = match_name(host, name->d.dNSName);
        if (result != HOST_MATCH_NOT_FOUND)
            return result;
    }
    return HOST_MATCH_NOT_FOUND;
}

static host_match match_common_name(const char *host, const X509 *certificate)
{
    const X509_NAME *subject = X509_get_subject_name(certificate);
    const X509_NAME_ENTRY *entry = nullptr;
    int index = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
    if (index >= 0)
        entry = X509_NAME_get_entry(subject, index);
    const ASN1_STRING *name = entry ? X509_NAME_ENTRY_get_data(entry) : nullptr;
    if (!name)
        return HOST_MATCH_ERROR;
    return match_name(host, name);
}

host_match validate_hostname(const char *host, const X509 *certificate)
{
    if (!host || !certificate)
        return HOST_MATCH_ERROR;
    host_match result = match_alternative_names(host, certificate);
    if (result == HOST_NO_SAN_PRESENT)
        result = match_common_name(host, certificate);
    return result;
}

const char *host_match_name(int result)
{
    static const char *const names[] = {"MatchFound", "MatchNotFound", "NoSANPresent", "MalformedCertificate",
                                        "Error"};
    if (result < 0 || result > HOST_MATCH_ERROR)
        return "WTF!";
    return names[result];
}
