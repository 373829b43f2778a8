#include "discovery/cert-verify.h"

#include <cstdlib>
#include <cstring>

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <unistd.h>

#include "agent/build-constants.h"
#include "agent/da.h"
#include "agent/text.h"
#include "platform/state-files.h"
#include "tests/unit/certificates.h"
#include "tests/unit/support.h"

using store_ptr = std::unique_ptr<X509_STORE, freed_by<X509_STORE_free>>;
using store_ctx_ptr = std::unique_ptr<X509_STORE_CTX, freed_by<X509_STORE_CTX_free>>;

static const char CLOUD_URL[] = "https://controller-1." ORVANTA_CLOUD_HOST "/ws";
static const long DAY = 86400;

class cert_verify_test : public testing::Test {
protected:
    void SetUp() override
    {
        fresh_agent();
        unlink(ALLOW_ALL_FILE);
        copy_text(da.orv_url, CLOUD_URL);
    }
};

/* Everything that is not wished otherwise is good: signed by the root, valid today, for "host.example.com".
 */
static certificate_wish good_wish(const identity &root)
{
    certificate_wish wish;
    wish.common_name = "leaf";
    wish.dns_names = {"host.example.com"};
    wish.issuer = &root;
    return wish;
}

struct verdict {
    int result;
    int error;
};

static bool operator==(const verdict &a, const verdict &b)
{
    return a.result == b.result && a.error == b.error;
}

static void PrintTo(const verdict &v, std::ostream *out)
{
    *out << "result " << v.result << " error " << v.error;
}

/* Asks the callback as a TLS library does. `others` are what the server sends beside its own certificate. */
static verdict verify(const identity &root, const identity &leaf,
                      const std::vector<const identity *> &others = {}, const char *host = "host.example.com")
{
    store_ptr store(X509_STORE_new());
    X509_STORE_add_cert(store.get(), root.certificate.get());
    STACK_OF(X509) *untrusted = sk_X509_new_null();
    for (const identity *other : others)
        sk_X509_push(untrusted, other->certificate.get());
    store_ctx_ptr context(X509_STORE_CTX_new());
    X509_STORE_CTX_init(context.get(), store.get(), leaf.certificate.get(), untrusted);
    X509_STORE_CTX_set_default(context.get(), "ssl_server");
    char live_host[256];
    copy_text(live_host, host);
    int result = ssl_cert_verify_callback(context.get(), live_host);
    verdict answer = {result, X509_STORE_CTX_get_error(context.get())};
    sk_X509_free(untrusted);
    ERR_clear_error();
    return answer;
}

static const verdict ACCEPTED = {1, 0};

/* ---- whether certificates are checked at all ---- */

TEST_F(cert_verify_test, controllers_on_premises_are_never_checked)
{
    copy_text(da.orv_url, "https://10.0.0.5/ws");
    EXPECT_EQ(0, allow_all_certs());
    EXPECT_EQ(0, platform_allow_all_certs());
    EXPECT_EQ(std::vector<std::string>(2, "https-client.c:Non-velmora/cloud Orvanta URL "
                                          "[https://10.0.0.5/ws], disabling Server Cert check"),
              logged());
}

TEST_F(cert_verify_test, the_cloud_is_checked)
{
    EXPECT_EQ(-1, allow_all_certs());
    EXPECT_EQ(-1, platform_allow_all_certs());
    EXPECT_TRUE(was_logged("Server cert validation is enabled"));
}

TEST_F(cert_verify_test, a_marker_file_turns_the_check_of_the_cloud_off)
{
    write_file(ALLOW_ALL_FILE, "");
    EXPECT_EQ(0, allow_all_certs());
    EXPECT_TRUE(was_logged("Server cert validation is turned off"));
    identity root = make_root("root");
    identity stranger = make_identity({});
    EXPECT_EQ(ACCEPTED, verify(root, stranger));
    EXPECT_TRUE(was_logged("Allowing all certificates"));
    unlink(ALLOW_ALL_FILE);
    EXPECT_EQ(-1, allow_all_certs());
}

TEST_F(cert_verify_test, on_premises_even_an_expired_self_signed_certificate_is_good)
{
    copy_text(da.orv_url, "https://10.0.0.5/ws");
    certificate_wish wish;
    wish.valid_from = -2 * DAY;
    wish.valid_until = -DAY;
    identity root = make_root("root");
    EXPECT_EQ(ACCEPTED, verify(root, make_identity(wish), {}, "elsewhere"));
}

/* ---- chains ---- */

TEST_F(cert_verify_test, a_good_certificate)
{
    identity root = make_root("root");
    EXPECT_EQ(ACCEPTED, verify(root, make_identity(good_wish(root))));
    EXPECT_TRUE(was_logged("https server 'host.example.com' has this certificate, which looks good to me:\n"
                           "/O=Test/CN=leaf\n"));
}

TEST_F(cert_verify_test, wrong_host)
{
    identity root = make_root("root");
    verdict refused = {0, X509_V_ERR_SUBJECT_ISSUER_MISMATCH};
    EXPECT_EQ(29, refused.error);
    EXPECT_EQ(refused, verify(root, make_identity(good_wish(root)), {}, "other.example.com"));
    EXPECT_TRUE(was_logged("Got 'MatchNotFound' for hostname 'other.example.com' and certificate:\n"
                           "/O=Test/CN=leaf\n"));
}

TEST_F(cert_verify_test, self_signed)
{
    identity root = make_root("root");
    certificate_wish wish = good_wish(root);
    wish.issuer = nullptr;
    EXPECT_EQ((verdict{0, X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT}), verify(root, make_identity(wish)));
    EXPECT_TRUE(was_logged(std::string("Server certificated validation failed errno = 18, err =  ") +
                           X509_verify_cert_error_string(18)));
}

TEST_F(cert_verify_test, unknown_issuer)
{
    identity root = make_root("root");
    identity stranger = make_root("stranger");
    verdict answer = verify(root, make_identity(good_wish(stranger)));
    EXPECT_EQ(0, answer.result);
    EXPECT_NE(0, answer.error);
}

TEST_F(cert_verify_test, expired)
{
    identity root = make_root("root");
    certificate_wish wish = good_wish(root);
    wish.valid_from = -2 * DAY;
    wish.valid_until = -DAY;
    EXPECT_EQ((verdict{0, X509_V_ERR_CERT_HAS_EXPIRED}), verify(root, make_identity(wish)));
}

TEST_F(cert_verify_test, not_yet_valid_is_tolerated)
{
    identity root = make_root("root");
    certificate_wish wish = good_wish(root);
    wish.valid_from = DAY;
    wish.valid_until = 2 * DAY;
    EXPECT_EQ(ACCEPTED, verify(root, make_identity(wish)));
    EXPECT_TRUE(was_logged(std::string("Server certificated validation failed errno = 9, err =  ") +
                           X509_verify_cert_error_string(9)));
    EXPECT_TRUE(was_logged("Certificate is not yet valid, check the certificate host name "));
}

/* As with an unset clock: nothing in the chain is valid yet. */
TEST_F(cert_verify_test, a_whole_chain_not_yet_valid)
{
    certificate_wish wish;
    wish.common_name = "root";
    wish.is_ca = true;
    wish.valid_from = DAY;
    wish.valid_until = 4 * DAY;
    identity root = make_identity(wish);
    wish.common_name = "between";
    wish.issuer = &root;
    identity between = make_identity(wish);
    wish = good_wish(between);
    wish.valid_from = DAY;
    wish.valid_until = 2 * DAY;
    identity leaf = make_identity(wish);
    EXPECT_EQ(ACCEPTED, verify(root, leaf, {&between}));
    EXPECT_EQ((verdict{0, 29}), verify(root, leaf, {&between}, "other.example.com"))
        << "the host is still checked";
}

/* The host is looked for in the server's certificate, though the chain's last finding was in another one. */
TEST_F(cert_verify_test, the_host_is_matched_against_the_servers_own_certificate)
{
    identity root = make_root("root");
    certificate_wish wish;
    wish.common_name = "between";
    wish.dns_names = {"between.example.com"};
    wish.is_ca = true;
    wish.issuer = &root;
    wish.valid_from = DAY;
    wish.valid_until = 2 * DAY;
    identity between = make_identity(wish);
    identity leaf = make_identity(good_wish(between));
    EXPECT_EQ(ACCEPTED, verify(root, leaf, {&between}));
    EXPECT_EQ((verdict{0, 29}), verify(root, leaf, {&between}, "between.example.com"));
}

/* Forgiving "not yet valid" must not hide what else is wrong: each of these would pass with a check that
 * stopped. */
TEST_F(cert_verify_test, not_yet_valid_hides_nothing)
{
    identity root = make_root("root");
    identity forger = make_root("root"); /* same name, other key */
    certificate_wish future = good_wish(root);
    future.valid_from = DAY;
    future.valid_until = 2 * DAY;

    certificate_wish forged = future;
    forged.signer = &forger;
    EXPECT_EQ((verdict{0, X509_V_ERR_CERT_SIGNATURE_FAILURE}), verify(root, make_identity(forged)));

    certificate_wish lone = future;
    lone.issuer = nullptr;
    EXPECT_EQ((verdict{0, X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT}), verify(root, make_identity(lone)));

    certificate_wish future_ca = future;
    future_ca.common_name = "between";
    future_ca.is_ca = true;
    identity between = make_identity(future_ca);
    certificate_wish below = good_wish(between);
    below.signer = &forger;
    EXPECT_EQ((verdict{0, X509_V_ERR_CERT_SIGNATURE_FAILURE}),
              verify(root, make_identity(below), {&between}));
    below.signer = nullptr;
    below.valid_from = -2 * DAY;
    below.valid_until = -DAY;
    EXPECT_EQ((verdict{0, X509_V_ERR_CERT_HAS_EXPIRED}), verify(root, make_identity(below), {&between}));

    certificate_wish no_ca = future;
    no_ca.common_name = "no authority";
    identity end_user = make_identity(no_ca);
    certificate_wish under = good_wish(end_user);
    EXPECT_EQ(0, verify(root, make_identity(under), {&end_user}).result)
        << "an end user signed for another host";
}

TEST_F(cert_verify_test, a_broken_host_text)
{
    identity root = make_root("root");
    EXPECT_EQ((verdict{0, 29}), verify(root, make_identity(good_wish(root)), {}, ""));

    store_ptr store(X509_STORE_new());
    X509_STORE_add_cert(store.get(), root.certificate.get());
    store_ctx_ptr context(X509_STORE_CTX_new());
    identity leaf = make_identity(good_wish(root));
    X509_STORE_CTX_init(context.get(), store.get(), leaf.certificate.get(), nullptr);
    EXPECT_EQ(0, ssl_cert_verify_callback(context.get(), nullptr));
    EXPECT_EQ(29, X509_STORE_CTX_get_error(context.get()));
    EXPECT_TRUE(was_logged("Got 'Error' for hostname '' and certificate:\n/O=Test/CN=leaf\n"));
}

TEST_F(cert_verify_test, nothing_to_verify)
{
    store_ctx_ptr context(X509_STORE_CTX_new());
    char host[] = "host.example.com";
    EXPECT_EQ(0, ssl_cert_verify_callback(context.get(), host));
    EXPECT_NE(0, X509_STORE_CTX_get_error(context.get())) << "refused with the error of success";
    ERR_clear_error();
}
