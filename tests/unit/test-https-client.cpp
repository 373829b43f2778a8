#include "tests/unit/onboarding-client.h"

using https_client_test = onboarding_client_test;

/* ---- good answers ---- */

TEST_F(https_client_test, a_redirect)
{
    write_file(VELMORA_ID_FILE, "abc:def");
    tls_server server(good_identity(), sending(REDIRECT));
    exchange done = ask(server.port);
    server.stop();
    EXPECT_EQ(0, done.result);
    EXPECT_EQ("https://c.example:8443/ws", done.location);
    EXPECT_EQ("id-1", done.cookie);
    EXPECT_FALSE(path_exists(VELMORA_ID_FILE)) << "the token is good for one redirect";
    EXPECT_EQ("Connecting", file_text(ORV_STATE_FILE));
    ASSERT_EQ(1u, server.requests.size());
    EXPECT_EQ(0u, server.requests[0].find("GET /orv-onboarding/device?mac=02:4F:56:00:00:01&type="));
    EXPECT_NE(std::string::npos,
              server.requests[0].find("&serialNo=SN-77&velmoraId=abc:def HTTP/1.1\r\nHOST:" +
                                      (HOST + (":" + std::to_string(server.port))) +
                                      "\r\nUser-Agent:ovDA/1.0 ("));
    EXPECT_EQ(std::vector<std::string>{HOST}, server.server_names);
}

/* The lines of a whole exchange, in their order, among others. */
TEST_F(https_client_test, what_is_logged)
{
    tls_server server(good_identity(), sending(REDIRECT));
    ask(server.port);
    std::string port = std::to_string(server.port);
    std::vector<std::string> expected = {
        "Resolved router router.example to 127.0.0.1",
        "TCP connection is successful",
        "Create SSL context, ca certs path is /etc/ssl/certs/",
        "Openssl connection to router.example : " + port + " \n",
        "SSL_connect successful",
        "Server certificate is verified and it is valid",
        "Wait for headers from router,max_tries =0",
        "Received " + std::to_string(REDIRECT.size()) + " bytes",
        "Found end of http headers",
        "Found http 302 status code",
        "Found Location Header",
        "HTTP content-length is  2\n",
        "Received full data",
    };
    size_t next = 0;
    for (const std::string &line : logged())
        if (next < expected.size() && line.substr(line.find(':') + 1) == expected[next])
            next++;
    EXPECT_EQ(expected.size(), next) << "missing, or too early: "
                                     << (next < expected.size() ? expected[next] : "");
    EXPECT_TRUE(was_logged("SSL write " + std::to_string(server.requests.at(0).size()) + " bytes"));
}

TEST_F(https_client_test, an_answer_in_one_byte_records)
{
    tls_server server(good_identity(), [](tls_peer &peer) { tls_send_bytewise(peer, REDIRECT); });
    exchange done = ask(server.port);
    EXPECT_EQ(0, done.result);
    EXPECT_EQ("https://c.example:8443/ws", done.location);
    EXPECT_EQ("id-1", done.cookie);
    EXPECT_TRUE(was_logged("Received 1 bytes"));
}

/* A server that hands out session tickets first: they make the socket readable without being an answer. */
TEST_F(https_client_test, session_tickets_before_the_answer)
{
    tls_server server(good_identity(), [](tls_peer &peer) {
        if (await_response_wait(2))
            tls_send(peer, REDIRECT);
    });
    SSL_CTX_set_num_tickets(server.context.get(), 2);
    EXPECT_EQ(0, ask(server.port).result);
    EXPECT_TRUE(was_logged("SSL_ERROR_WANT_READ try again"));
    EXPECT_TRUE(was_logged("Wait for headers from router,max_tries =1"));
}

TEST_F(https_client_test, a_slow_answer_in_pieces)
{
    std::string body = "{\"a\": \"" + std::string(5000, 'b') + "\"}";
    std::string answer = with_body(REDIRECT_HEAD, body);
    size_t head = answer.size() - body.size();
    tls_server server(good_identity(), [&](tls_peer &peer) {
        const size_t cuts[] = {0, 5, 30, head - 1, head + 1, head + 3000, answer.size()};
        for (int i = 0; i < 6; i++)
            if (await_response_wait(i + 1))
                tls_send(peer, answer.substr(cuts[i], cuts[i + 1] - cuts[i]));
    });
    exchange done = ask(server.port);
    EXPECT_EQ(0, done.result);
    EXPECT_EQ("https://c.example:8443/ws", done.location);
    EXPECT_TRUE(was_logged("Wait for headers from router,max_tries =3"));
    EXPECT_TRUE(was_logged("Not able to find end of header , read more data"));
    EXPECT_TRUE(was_logged("Waiting for body from Orvanta, max_tries = 1"));
    EXPECT_TRUE(was_logged("SSL_ERROR_WANT_READ try again"));
    EXPECT_TRUE(was_logged("SSL_WANT_READ.. try again"));
}

/* A record ends here, the next one comes when the client has looked: whatever the place, it is the same
 * answer. */
TEST_F(https_client_test, an_answer_cut_in_two_at_every_position)
{
    std::atomic<size_t> cut{0};
    tls_server server(good_identity(), [&](tls_peer &peer) {
        tls_send(peer, REDIRECT.substr(0, cut));
        if (await_response_wait(2))
            tls_send(peer, REDIRECT.substr(cut));
    });
    for (cut = 1; cut < REDIRECT.size(); cut++) {
        response_waits = 0;
        exchange done = ask(server.port);
        ASSERT_EQ(0, done.result) << cut;
        EXPECT_EQ("https://c.example:8443/ws", done.location) << cut;
        EXPECT_EQ("id-1", done.cookie) << cut;
        EXPECT_EQ(2, response_waits) << cut;
    }
}

TEST_F(https_client_test, a_body_longer_than_the_response_buffer)
{
    tls_server server(good_identity(),
                      sending(with_body(REDIRECT_HEAD, "[\"" + std::string(300000, 'b') + "\"]")));
    EXPECT_EQ(0, ask(server.port).result);
}

TEST_F(https_client_test, a_redirect_without_cookie)
{
    write_file(VELMORA_ID_FILE, "abc:def");
    tls_server server(good_identity(),
                      sending(with_body("HTTP/1.1 302 Found\r\nLocation: https://c/\r\n", "{}")));
    exchange done = ask(server.port);
    EXPECT_EQ(0, done.result) << "the exchange is complete; discovery judges";
    EXPECT_EQ("https://c/", done.location);
    EXPECT_EQ("", done.cookie);
    EXPECT_FALSE(path_exists(VELMORA_ID_FILE));
}

TEST_F(https_client_test, what_stands_in_the_body_is_no_header)
{
    tls_server server(good_identity(),
                      sending(with_body("HTTP/1.1 302 Found\r\n", "[\"Location: https://evil/ \"]")));
    EXPECT_EQ("", ask(server.port).location);
}

TEST_F(https_client_test, discovery_over_the_default_cloud)
{
    certificate_wish wish = good_wish();
    wish.dns_names = {ORVANTA_CLOUD_HOST};
    identity cloud = make_identity(wish);
    tls_server server(cloud, sending(REDIRECT), 443);
    EXPECT_EQ(0, discover_orv());
    EXPECT_STREQ("https://c.example:8443/ws", get_orv_url());
    EXPECT_STREQ("id-1", da.deviceId);
    EXPECT_EQ("id-1", file_text(DEVICE_ID_COOKIE_FILE));
}

TEST_F(https_client_test, discovery_without_cookie_in_the_answer)
{
    write_file(STATIC_URL_FILE, "https://router.example");
    write_file(VELMORA_ID_FILE, "abc:def");
    tls_server server(good_identity(),
                      sending(with_body("HTTP/1.1 302 Found\r\nLocation: https://c/\r\n", "{}")), 443);
    EXPECT_EQ(-1, discover_orv());
    EXPECT_TRUE(was_logged("Not able to find deviceId Cookie, Try Discovering again"));
    EXPECT_FALSE(path_exists(VELMORA_ID_FILE));
}

/* ---- refusals ---- */

TEST_F(https_client_test, a_404_with_a_body_deletes_the_cookie)
{
    write_file(DEVICE_ID_COOKIE_FILE, "id-1");
    write_file(VELMORA_ID_FILE, "abc:def");
    tls_server server(good_identity(), sending(with_body("HTTP/1.1 404 Not Found\r\n", "{\"x\": 1}")));
    EXPECT_EQ(-1, ask(server.port).result);
    EXPECT_FALSE(path_exists(DEVICE_ID_COOKIE_FILE));
    EXPECT_TRUE(path_exists(VELMORA_ID_FILE)) << "only a redirect uses the token up";
    EXPECT_TRUE(was_logged("get_from_orvrouter: Received 404 from Orvrouter ret=0"));
    EXPECT_TRUE(was_logged("Error response: [{\"x\": 1}]"));
    EXPECT_TRUE(was_logged("get_from_orvrouter: max_tries 1, ret 0 , error 1"));
    ask(server.port);
    server.stop();
    ASSERT_EQ(2u, server.requests.size());
    EXPECT_NE(std::string::npos, server.requests[0].find("cookie:deviceId=id-1\r\n"));
    EXPECT_EQ(std::string::npos, server.requests[1].find("cookie:"));
}

TEST_F(https_client_test, answers_that_keep_the_cookie)
{
    const std::string rows[] = {
        with_body("HTTP/1.1 404 Not Found\r\n", "no JSON"),
        with_body("HTTP/1.1 404 Not Found\r\n", ""),
        "HTTP/1.1 404 Not Found\r\n\r\n",
        with_body("HTTP/1.1 500 Internal Server Error\r\n", "{}"),
        REDIRECT,
    };
    for (const std::string &answer : rows) {
        write_file(DEVICE_ID_COOKIE_FILE, "id-1");
        tls_server server(good_identity(), sending(answer));
        ask(server.port);
        EXPECT_TRUE(path_exists(DEVICE_ID_COOKIE_FILE)) << answer;
    }
}

TEST_F(https_client_test, content_length_below_one)
{
    const struct {
        std::string header;
        std::string shown;
    } rows[] = {{"Content-Length: 0\r\n", "0"}, {"Content-Length: -7\r\n", "-7"}, {"", "0"}};
    for (const auto &row : rows) {
        clear_log();
        write_file(VELMORA_ID_FILE, "abc:def");
        tls_server server(good_identity(), sending(REDIRECT_HEAD + row.header + "\r\n"));
        EXPECT_EQ(-1, ask(server.port).result);
        EXPECT_TRUE(was_logged("Error, " + row.shown + " content_length response received")) << row.header;
        EXPECT_TRUE(was_logged("get_from_orvrouter: max_tries 1, ret 0 , error 1"));
        EXPECT_FALSE(path_exists(VELMORA_ID_FILE));
    }
}

TEST_F(https_client_test, an_error_message_is_shown)
{
    const std::string body = "{\"error\": {\"message\": \"No 100% %s %n such device\"}}";
    tls_server server(good_identity(), sending(with_body("HTTP/1.1 403 Forbidden\r\n", body)));
    EXPECT_EQ(-1, ask(server.port).result);
    EXPECT_EQ("No 100% %s %n such device", file_text(ORV_STATE_FILE));
    EXPECT_EQ(1, orv_state_action_pending);
    EXPECT_TRUE(was_logged(" Received error message: [No 100% %s %n such device] from Orvanta"));
    EXPECT_TRUE(was_logged("Error response: [" + body + "]"));
}

TEST_F(https_client_test, bodies)
{
    const struct {
        std::string body;
        int result;
        const char *status;
    } rows[] = {
        {"{\"error\": {\"message\": \"hello\"}}", 0, "hello"}, /* a redirect all the same */
        {"{\"error\": {\"message\": 7}}", 0, "Connecting"},
        {"{\"error\": \"text\"}", 0, "Connecting"},
        {"{\"error\": {}}", 0, "Connecting"},
        {"[1, 2]", 0, "Connecting"},
        {"<html>302</html>", -1, "Connecting"},
        {"{\"error\": {\"message\": \"cut", -1, "Connecting"},
        {"{}trailing", -1, "Connecting"},
        {"{}\0"s, -1, "Connecting"},
        {std::string(10000, '['), -1, "Connecting"},
        {"{\"a\": \"\xFF\"}", -1, "Connecting"},
    };
    for (const auto &row : rows) {
        tls_server server(good_identity(), sending(with_body(REDIRECT_HEAD, row.body)));
        EXPECT_EQ(row.result, ask(server.port).result) << row.body.substr(0, 40);
        EXPECT_EQ(row.status, file_text(ORV_STATE_FILE)) << row.body.substr(0, 40);
    }
    EXPECT_TRUE(was_logged("get_from_orvrouter: max_tries 1, ret -1 , error 1"));
}

TEST_F(https_client_test, a_body_that_is_no_json)
{
    tls_server server(good_identity(), sending(with_body(REDIRECT_HEAD, "<html>")));
    ask(server.port);
    EXPECT_TRUE(was_logged("Unexpected response: JSON error  line:1 text: '[' or '{' expected near '<'"));
}

TEST_F(https_client_test, bodies_too_large_to_be_had)
{
    for (const char *length : {"16777217", "2147483647", "99999999999"}) {
        clear_log();
        tls_server server(good_identity(),
                          sending(REDIRECT_HEAD + "Content-Length: " + length + "\r\n\r\n{}"));
        EXPECT_EQ(-1, ask(server.port).result);
        EXPECT_TRUE(was_logged("Not able to allocate memory for response_body")) << length;
    }
}

TEST_F(https_client_test, more_body_than_announced_is_left_alone)
{
    tls_server server(good_identity(), sending(REDIRECT + " and more"));
    EXPECT_EQ(0, ask(server.port).result);
}
