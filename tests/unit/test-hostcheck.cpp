#include "discovery/hostname-validation.h"

#include <gtest/gtest.h>

#include "tests/unit/certificates.h"

using namespace std::string_literals;

/* ---- one name ---- */

TEST(hostcheck_test, names)
{
    const struct {
        const char *pattern;
        const char *host;
        int expected;
    } rows[] = {
        {"host.example.com", "host.example.com", 1},
        {"host.example.com", "HOST.Example.COM", 1},
        {"HOST.EXAMPLE.COM", "host.example.com", 1},
        {"host.example.com", "host.example.org", 0},
        {"host.example.com", "host.example.com.", 0},
        {"host.example.co", "host.example.com", 0},
        {"host.example.com", "host.example.co", 0},
        {"example.com", "host.example.com", 0},
        {"", "host.example.com", 0},
        {"host.example.com", "", 0},
        {"", "", 0},
        {nullptr, "host.example.com", 0},
        {"host.example.com", nullptr, 0},
        /* wildcards */
        {"*.example.com", "abc.example.com", 1},
        {"*.example.com", "ABC.EXAMPLE.COM", 1},
        {"*.example.com", "example.com", 0},
        {"*.example.com", "a.b.example.com", 0},
        {"*.example.com", ".example.com", 0},
        {"*.example.com", "abc.example.org", 0},
        {"*.example.com", "abc", 0},
        {"*.com", "example.com", 0}, /* one dot is not enough */
        {"*.com", "*.com", 1},
        {"*", "host", 0},
        {"*", "*", 1},
        {"*.", "a.", 0},
        {"*..", "a..", 1},
        {"w*.example.com", "wxy.example.com", 1},
        {"w*.example.com", "wx.example.com", 1},
        {"w*.example.com", "w.example.com", 0}, /* the "*" stands for at least one character */
        {"w*.example.com", "xw.example.com", 0},
        {"W*.example.com", "wx.example.com", 1},
        {"*w.example.com", "xw.example.com", 1},
        {"*w.example.com", "w.example.com", 0},
        {"*w.example.com", "wx.example.com", 0},
        {"a*z.example.com", "abcz.example.com", 1},
        {"a*z.example.com", "az.example.com", 0},
        {"a*z.example.com", "abc.example.com", 0},
        {"aa*aa.example.com", "aaa.example.com", 0}, /* the two ends may not overlap */
        {"aa*aa.example.com", "aaaa.example.com", 0},
        {"aa*aa.example.com", "aaaaa.example.com", 1},
        {"**.example.com", "a*.example.com", 1}, /* the second "*" is an ordinary character */
        {"**.example.com", "ab.example.com", 0},
        {"a.*.example.com", "a.b.example.com", 0}, /* only in the first label */
        {"www.*.com", "www.example.com", 0},
        {"a.b*", "a.bc", 0},
        /* punycode */
        {"xn--*.example.com", "xn--abc.example.com", 0},
        {"XN--*.example.com", "xn--abc.example.com", 0},
        {"xn--*.example.com", "xn--*.example.com", 1},
        {"*.example.com", "xn--abc.example.com", 1},
        {"xn-*.example.com", "xn--abc.example.com", 1},
        /* bytes outside ASCII compare as they are */
        {"\xC4.example.com", "\xE4.example.com", 0},
        {"\xE4.example.com", "\xE4.EXAMPLE.com", 1},
        {"[.example.com", "{.example.com", 0}, /* 0x20 apart, but no letters */
        {"@.example.com", "`.example.com", 0},
    };
    for (const auto &row : rows)
        EXPECT_EQ(row.expected, Curl_cert_hostcheck(row.pattern, row.host))
            << (row.pattern ? row.pattern : "null") << " for " << (row.host ? row.host : "null");
}

TEST(hostcheck_test, result_names)
{
    EXPECT_STREQ("MatchFound", host_match_name(0));
    EXPECT_STREQ("MatchNotFound", host_match_name(1));
    EXPECT_STREQ("NoSANPresent", host_match_name(2));
    EXPECT_STREQ("MalformedCertificate", host_match_name(3));
    EXPECT_STREQ("Error", host_match_name(4));
    EXPECT_STREQ("WTF!", host_match_name(5));
    EXPECT_STREQ("WTF!", host_match_name(-1));
}

/* ---- one certificate ---- */

static host_match validate(const certificate_wish &wish, const char *host = "host.example.com")
{
    return validate_hostname(host, make_identity(wish).certificate.get());
}

static certificate_wish with_names(const std::string &common_name, const std::vector<std::string> &dns_names)
{
    certificate_wish wish;
    wish.common_name = common_name;
    wish.dns_names = dns_names;
    return wish;
}

TEST(validate_hostname_test, names_of_the_certificate)
{
    const struct {
        const char *what;
        std::string common_name;
        std::vector<std::string> dns_names;
        host_match expected;
    } rows[] = {
        {"alternative name", "other", {"host.example.com"}, HOST_MATCH_FOUND},
        {"second alternative name", "other", {"a.example.com", "host.example.com"}, HOST_MATCH_FOUND},
        {"wildcard", "other", {"*.example.com"}, HOST_MATCH_FOUND},
        {"not among them, though the common name is",
         "host.example.com",
         {"a.example.com"},
         HOST_MATCH_NOT_FOUND},
        {"NUL inside", "other", {"host.example.com\0.evil.example"s}, HOST_MALFORMED_CERTIFICATE},
        {"NUL at the end", "other", {"host.example.com\0"s}, HOST_MALFORMED_CERTIFICATE},
        {"NUL before a good one", "other", {"a\0b"s, "host.example.com"}, HOST_MALFORMED_CERTIFICATE},
        {"a good one before NUL", "other", {"host.example.com", "a\0b"s}, HOST_MATCH_FOUND},
        {"empty alternative name", "host.example.com", {""}, HOST_MATCH_NOT_FOUND},
        {"common name", "host.example.com", {}, HOST_MATCH_FOUND},
        {"wildcard common name", "*.example.com", {}, HOST_MATCH_FOUND},
        {"other common name", "other.example.com", {}, HOST_MATCH_NOT_FOUND},
        {"NUL in the common name", "host.example.com\0.evil.example"s, {}, HOST_MALFORMED_CERTIFICATE},
        {"no name at all", "", {}, HOST_MATCH_ERROR},
    };
    for (const auto &row : rows)
        EXPECT_EQ(row.expected, validate(with_names(row.common_name, row.dns_names))) << row.what;
}

TEST(validate_hostname_test, names_that_are_no_host_names)
{
    certificate_wish wish = with_names("host.example.com", {});
    wish.email_names = {"host.example.com"};
    EXPECT_EQ(HOST_MATCH_NOT_FOUND, validate(wish))
        << "a name of another kind counts as an extension without hosts";
}

TEST(validate_hostname_test, unreadable_alternative_names)
{
    certificate_wish wish = with_names("host.example.com", {});
    identity made = make_identity(wish);
    ASN1_OCTET_STRING *garbage = ASN1_OCTET_STRING_new();
    ASN1_OCTET_STRING_set(garbage, reinterpret_cast<const unsigned char *>("no DER"), 6);
    X509_EXTENSION *extension = X509_EXTENSION_create_by_NID(nullptr, NID_subject_alt_name, 0, garbage);
    X509_add_ext(made.certificate.get(), extension, -1);
    X509_EXTENSION_free(extension);
    ASN1_OCTET_STRING_free(garbage);
    EXPECT_EQ(HOST_MALFORMED_CERTIFICATE, validate_hostname("host.example.com", made.certificate.get()))
        << "the common name is not consulted";
}

TEST(validate_hostname_test, nothing_to_compare)
{
    identity made = make_identity(with_names("host.example.com", {}));
    EXPECT_EQ(HOST_MATCH_ERROR, validate_hostname(nullptr, made.certificate.get()));
    EXPECT_EQ(HOST_MATCH_ERROR, validate_hostname("host.example.com", nullptr));
    EXPECT_EQ(HOST_MATCH_NOT_FOUND, validate_hostname("", made.certificate.get()));
}
