#include "tests/unit/onboarding-client.h"

using https_connection_test = onboarding_client_test;

/* ---- credentials, names, connections ---- */

TEST_F(https_connection_test, without_credentials_the_cloud_is_not_asked)
{
    da.dev_info.serial_number[0] = '\0';
    tls_server server(good_identity(), sending(REDIRECT));
    EXPECT_EQ(-1, ask(server.port).result);
    server.stop();
    EXPECT_EQ(0, server.handshakes);
    EXPECT_EQ("Velmora-ID Not Configured", file_text(ORV_STATE_FILE));
    EXPECT_TRUE(was_logged("Required on-boarding credentials not configured, cannot attempt on-boarding."));
}

TEST_F(https_connection_test, a_name_without_address)
{
    EXPECT_EQ(-1, ask(4000, "nowhere.invalid").result);
    EXPECT_EQ("Resolving URL", file_text(ORV_STATE_FILE));
    EXPECT_TRUE(was_logged("Not able to resolve  nowhere.invalid "));
}

TEST_F(https_connection_test, nobody_listens)
{
    int port = 0;
    close(tls_listen(0, &port));
    EXPECT_EQ(-1, ask(port).result);
    EXPECT_TRUE(was_logged("Error connecting 111 - Connection refused\n"));
    EXPECT_TRUE(was_logged("OpenConnection to router.example:" + std::to_string(port) + " failed "));
    EXPECT_EQ("Connecting", file_text(ORV_STATE_FILE));
}

/* A queue of connections that nobody accepts fills up; the next connect stays unanswered. */
TEST_F(https_connection_test, nobody_answers_the_connect)
{
    int port = 0;
    fd_guard listener(tls_listen(0, &port));
    listen(listener.fd, 0);
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    fd_guard filler(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(0, connect(filler.fd, reinterpret_cast<struct sockaddr *>(&address), sizeof(address)));
    dead_network = true;
    EXPECT_EQ(-1, ask(port).result);
    EXPECT_EQ(std::vector<long>{TCP_CONNECT_SECONDS}, wait_seconds);
    EXPECT_TRUE(was_logged("EINPROGRESS in connect()\n"));
    EXPECT_TRUE(was_logged("Timeout in select() - Cancelling!\n"));
    EXPECT_TRUE(was_logged("OpenConnection to router.example:" + std::to_string(port) + " failed "));
}

TEST_F(https_connection_test, a_descriptor_that_select_cannot_hold)
{
    struct rlimit old_limit, high_limit;
    getrlimit(RLIMIT_NOFILE, &old_limit);
    high_limit = old_limit;
    high_limit.rlim_cur = 2048;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &high_limit));
    std::vector<int> fillers;
    while (fillers.empty() || fillers.back() < 1023)
        fillers.push_back(dup(0));
    EXPECT_EQ(-1, tcp_connect("127.0.0.1", 4000));
    EXPECT_TRUE(was_logged("Not able to open the socket"));
    int next = dup(0);
    EXPECT_EQ(fillers.back() + 1, next) << "the refused descriptor was not closed";
    close(next);
    for (int fd : fillers)
        close(fd);
    setrlimit(RLIMIT_NOFILE, &old_limit);
}

TEST_F(https_connection_test, nothing_stays_open)
{
    tls_server server(good_identity(), sending(REDIRECT));
    ask(server.port);
    int before = dup(0);
    close(before);
    ask(server.port);
    ask(4000, "nowhere.invalid");
    server.script = sending("HTTP/1.1 500 No\r\n\r\n");
    ask(server.port);
    server.stop();
    int after = dup(0);
    close(after);
    EXPECT_LE(after, before);
}

/* ---- certificates ---- */

/* What an exchange with a server of this certificate gives. */
static int result_with(const certificate_wish &wish, const char *host = HOST)
{
    identity who = make_identity(wish);
    tls_server server(who, sending(REDIRECT));
    return ask(server.port, host).result;
}

static const long DAY = 86400;

TEST_F(https_connection_test, a_self_signed_certificate_is_refused_for_the_cloud)
{
    certificate_wish wish = good_wish();
    wish.issuer = nullptr;
    EXPECT_EQ(-1, result_with(wish));
    EXPECT_TRUE(was_logged("SSL_connect Not successful 1"));
}

TEST_F(https_connection_test, a_self_signed_certificate_is_good_on_premises)
{
    copy_text(da.orv_url, "https://10.0.0.5");
    EXPECT_EQ(0, result_with({}));
    EXPECT_TRUE(was_logged("Allowing all certificates"));
}

TEST_F(https_connection_test, another_host)
{
    certificate_wish wish = good_wish();
    wish.dns_names = {"other.example"};
    EXPECT_EQ(-1, result_with(wish));
    EXPECT_TRUE(was_logged("SSL_connect Not successful 1"));
    EXPECT_EQ(0, result_with(good_wish())) << "and the next one is judged by itself";
    EXPECT_EQ(-1, result_with(good_wish(), ORVANTA_CLOUD_HOST)) << "the name is the one of this exchange";
}

TEST_F(https_connection_test, not_yet_valid_and_expired)
{
    certificate_wish wish = good_wish();
    wish.valid_from = DAY;
    wish.valid_until = 2 * DAY;
    EXPECT_EQ(0, result_with(wish));
    EXPECT_TRUE(was_logged("Certificate is not yet valid, check the certificate host name "));

    identity forger = make_root("Test Root");
    wish.signer = &forger;
    EXPECT_EQ(-1, result_with(wish)) << "not yet valid, and not signed by the root either";

    wish = good_wish();
    wish.valid_from = -2 * DAY;
    wish.valid_until = -DAY;
    EXPECT_EQ(-1, result_with(wish));
}

/* The date of a certificate higher up is found before the signatures below it are looked at. */
TEST_F(https_connection_test, a_forged_certificate_under_one_that_is_not_yet_valid)
{
    certificate_wish wish;
    wish.common_name = "Between";
    wish.is_ca = true;
    wish.issuer = &trusted_root();
    wish.valid_from = DAY;
    wish.valid_until = 2 * DAY;
    identity between = make_identity(wish);
    identity forger = make_root("Between");
    for (const identity *signer : {&between, &forger}) {
        wish = good_wish();
        wish.issuer = &between;
        wish.signer = signer;
        identity leaf = make_identity(wish);
        tls_server server(leaf, sending(REDIRECT));
        SSL_CTX_add1_chain_cert(server.context.get(), between.certificate.get());
        EXPECT_EQ(signer == &between ? 0 : -1, ask(server.port).result);
    }
}

/* The environment names certificates too; only the system's folder counts. */
TEST_F(https_connection_test, the_environment_adds_no_trust)
{
    identity stranger = make_root("Stranger");
    char name[] = "/tmp/stranger-XXXXXX";
    file_ptr file(fdopen(mkstemp(name), "w"));
    PEM_write_X509(file.get(), stranger.certificate.get());
    fflush(file.get());
    setenv("SSL_CERT_FILE", name, 1);
    https_client_init();
    certificate_wish wish = good_wish();
    wish.issuer = &stranger;
    EXPECT_EQ(-1, result_with(wish));
    unsetenv("SSL_CERT_FILE");
    EXPECT_EQ(0, result_with(good_wish()));
}

TEST_F(https_connection_test, old_tls_is_refused)
{
    tls_server server(good_identity(), sending(REDIRECT));
    SSL_CTX_set_security_level(server.context.get(), 0);
    SSL_CTX_set_min_proto_version(server.context.get(), TLS1_VERSION);
    SSL_CTX_set_max_proto_version(server.context.get(), TLS1_1_VERSION);
    EXPECT_EQ(-1, ask(server.port).result);
    SSL_CTX_set_max_proto_version(server.context.get(), TLS1_2_VERSION);
    EXPECT_EQ(0, ask(server.port).result);
}
