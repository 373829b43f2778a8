#include "tests/unit/onboarding-client.h"

using https_waits_test = onboarding_client_test;

/* ---- waits ---- */

TEST_F(https_waits_test, a_server_that_never_answers)
{
    silence = true;
    std::atomic<bool> over{false};
    tls_server server(good_identity(), [&](tls_peer &) {
        while (!over)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    });
    exchange done = ask(server.port);
    over = true;
    EXPECT_EQ(-1, done.result);
    EXPECT_EQ(ORV_RESPONSE_WAITS, response_waits);
    EXPECT_EQ(std::vector<long>(10, 6), std::vector<long>(wait_seconds.end() - 10, wait_seconds.end()));
    EXPECT_TRUE(was_logged("Wait for headers from router,max_tries =9"));
    EXPECT_TRUE(was_logged("Not able to find end of headers, even after 10 reads, so exiting, ret = 0"));
    EXPECT_TRUE(was_logged("get_from_orvrouter: max_tries 10, ret -1 , error 0"));
}

TEST_F(https_waits_test, a_header_that_never_ends)
{
    tls_server server(good_identity(), [](tls_peer &peer) {
        for (int n = 1; n <= 10 && await_response_wait(n); n++)
            tls_send(peer, n == 1 ? "HTTP/1.1 302 Found\r\n" : "A: b\r\n");
    });
    EXPECT_EQ(-1, ask(server.port).result);
    EXPECT_EQ(10, response_waits);
    EXPECT_TRUE(was_logged("Not able to find end of headers, even after 10 reads, so exiting, ret = 1"));
}

/* The tenth wait is one too many, though the header part is complete with it. */
TEST_F(https_waits_test, a_header_that_ends_in_the_last_wait)
{
    const struct {
        int pieces;
        int result;
    } rows[] = {{9, 0}, {10, -1}};
    for (const auto &row : rows) {
        clear_log();
        response_waits = 0;
        tls_server server(good_identity(), [&](tls_peer &peer) {
            for (int n = 1; n <= row.pieces && await_response_wait(n); n++)
                tls_send(peer, n == row.pieces ? REDIRECT.substr(static_cast<size_t>(n) - 1)
                                               : REDIRECT.substr(static_cast<size_t>(n) - 1, 1));
        });
        EXPECT_EQ(row.result, ask(server.port).result) << row.pieces;
        EXPECT_EQ(row.result == -1, was_logged("get_from_orvrouter: max_tries 10, ret 0 , error 0"));
    }
}

TEST_F(https_waits_test, a_header_part_as_large_as_the_buffer)
{
    std::string head = "HTTP/1.1 302 Found\r\nContent-Length: 2\r\nLocation: https://c/\r\nX: ";
    std::string fitting = head + std::string(4095 - 4 - head.size(), 'x') + "\r\n\r\n";
    ASSERT_EQ(4095u, fitting.size());
    tls_server good(good_identity(), sending(fitting + "{}"));
    exchange done = ask(good.port);
    EXPECT_EQ(0, done.result);
    EXPECT_EQ("https://c/", done.location);

    for (size_t size : {4096u, 5000u, 100000u}) {
        clear_log();
        std::string large = head + std::string(size - 4 - head.size(), 'x') + "\r\n\r\n";
        tls_server server(good_identity(), sending(large + "{}"));
        EXPECT_EQ(-1, ask(server.port).result) << size;
        EXPECT_TRUE(was_logged("Not able to find end of headers, even after 10 reads, so exiting, ret = -1"));
    }
}

TEST_F(https_waits_test, a_body_that_never_ends)
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGHUP, &action, nullptr);
    std::atomic<bool> over{false};
    tls_server server(good_identity(), [&](tls_peer &peer) {
        tls_send(peer, REDIRECT_HEAD + "Content-Length: 100\r\n\r\n{");
        await_response_wait(2); /* the first one was for the header */
        silence = true;
        kill(getpid(), SIGHUP); /* lets the wait that has already begun look at the time again */
        while (!over)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    });
    exchange done = ask(server.port);
    over = true;
    server.stop();
    signal(SIGHUP, SIG_DFL);
    EXPECT_EQ(-1, done.result);
    EXPECT_TRUE(was_logged("Waiting for body from Orvanta, max_tries = 9"));
    EXPECT_FALSE(was_logged("Waiting for body from Orvanta, max_tries = 10"));
    EXPECT_TRUE(was_logged("Not able to find end of headers, even after 10 reads, so exiting"));
    EXPECT_TRUE(was_logged("get_from_orvrouter: max_tries 1, ret -1 , error 1"));
}

TEST_F(https_waits_test, a_server_that_leaves)
{
    const struct {
        const char *text;
    } rows[] = {{""}, {"HTTP/1.1 302"}, {"HTTP/1.1 302 Found\r\nContent-Length: 10\r\n\r\n{"}};
    for (const auto &row : rows) {
        clear_log();
        tls_server server(good_identity(), [&](tls_peer &peer) {
            if (*row.text)
                tls_send(peer, row.text);
        });
        EXPECT_EQ(-1, ask(server.port).result) << row.text;
        EXPECT_TRUE(was_logged("SSL_read Not successful 6")) << row.text;
    }
}

/* A peer that accepts the connection and says nothing, or rubbish. */
TEST_F(https_waits_test, handshakes_that_come_to_nothing)
{
    int port = 0;
    fd_guard listener(tls_listen(0, &port));
    dead_network = true;
    EXPECT_EQ(-1, ask(port).result);
    EXPECT_TRUE(was_logged("SSL_ERROR_WANT_READ try again"));
    EXPECT_TRUE(was_logged("SSL_connect Not successful"));
    EXPECT_EQ(TLS_HANDSHAKE_WAIT_SECONDS, wait_seconds.back());

    dead_network = false;
    fd_guard silent(accept4(listener.fd, nullptr, nullptr, SOCK_CLOEXEC));
    std::thread rubbish([&] {
        fd_guard client(accept4(listener.fd, nullptr, nullptr, SOCK_CLOEXEC));
        EXPECT_EQ(20, write(client.fd, "SSH-2.0-no-TLS-here\n", 20));
        char drain[4096];
        while (read(client.fd, drain, sizeof(drain)) > 0)
            ;
    });
    EXPECT_EQ(-1, ask(port).result);
    rubbish.join();
    EXPECT_TRUE(was_logged("SSL_connect Not successful 1"));
}

/* A peer that always sends a little before a wait is over: all of the handshake has a bound as well. */
TEST_F(https_waits_test, a_handshake_that_never_ends)
{
    int port = 0;
    fd_guard listener(tls_listen(0, &port));
    drip_seconds = 14;
    EXPECT_EQ(-1, ask(port).result);
    ASSERT_GE(wait_seconds.size(), 5u);
    std::vector<long> waits(wait_seconds.end() - 5, wait_seconds.end());
    EXPECT_EQ((std::vector<long>{15, 15, 15, 15, TLS_HANDSHAKE_SECONDS - 4 * 14}), waits);
    EXPECT_TRUE(was_logged("SSL_connect Not successful"));
}

/* ---- signals ---- */

static std::atomic<int> interruptions;

TEST_F(https_waits_test, an_interruption_goes_unnoticed)
{
    interruptions = 0;
    struct sigaction action = {};
    action.sa_handler = [](int) { interruptions++; };
    sigaction(SIGHUP, &action, nullptr);
    tls_server server(good_identity(), [](tls_peer &peer) {
        await_response_wait(1);
        kill(getpid(), SIGHUP);
        await_response_wait(2); /* waits on, for what is left of its time */
        tls_send(peer, REDIRECT);
    });
    EXPECT_EQ(0, ask(server.port).result);
    EXPECT_EQ(1, interruptions);
    EXPECT_EQ(2, response_waits);
    EXPECT_TRUE(was_logged("Wait for headers from router,max_tries =0"));
    EXPECT_FALSE(was_logged("Wait for headers from router,max_tries =1")) << "it is still the same wait";
    signal(SIGHUP, SIG_DFL);
}

/* What the agent's handler of SIGUSR1 does, as far as discovery sees it. */
static void force_rediscovery(int)
{
    state_generation++;
    da.discovery_method = DISCOVER_RESTART;
    platform_set_orv_connection_state(ORV_NOT_CONNECTED, nullptr);
}

TEST_F(https_waits_test, overtaken_while_it_waits_for_the_answer)
{
    struct sigaction action = {};
    action.sa_handler = force_rediscovery;
    sigaction(SIGUSR1, &action, nullptr);
    write_file(DHCP_15_FILE, "example.net"); /* a source that otherwise falls through to the cloud */
    write_file("/etc/hosts", "127.0.0.1 orvanta.example.net "s + HOST + " " + ORVANTA_CLOUD_HOST + "\n");
    std::atomic<bool> over{false};
    tls_server server(
        good_identity(),
        [&](tls_peer &) {
            await_response_wait(1);
            kill(getpid(), SIGUSR1);
            while (!over)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
        },
        443);
    EXPECT_EQ(-1, discover_orv());
    over = true;
    server.stop();
    EXPECT_EQ(1, server.handshakes) << "no further source is asked";
    EXPECT_EQ(1, response_waits);
    EXPECT_EQ(DISCOVER_RESTART, da.discovery_method);
    EXPECT_EQ(5, idle_timeout);
    EXPECT_EQ("Not Connected", file_text(ORV_STATE_FILE)) << "the new state's word stands";
    signal(SIGUSR1, SIG_DFL);
}

TEST_F(https_waits_test, overtaken_in_the_handshake)
{
    struct sigaction action = {};
    action.sa_handler = force_rediscovery;
    sigaction(SIGUSR1, &action, nullptr);
    uint32_t generation = state_generation;
    int port = 0;
    fd_guard listener(tls_listen(0, &port)); /* connects, and never says a word */
    kill(getpid(), SIGUSR1);                 /* held back until a wait lets it in */
    EXPECT_EQ(-1, ask(port).result);
    EXPECT_EQ(1u, state_generation - generation);
    EXPECT_EQ("Not Connected", file_text(ORV_STATE_FILE));
    signal(SIGUSR1, SIG_DFL);
}
