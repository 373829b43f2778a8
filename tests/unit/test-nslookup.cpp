#include "operations/nslookup.h"

#include <cstring>

#include <arpa/inet.h>
#include <netdb.h>

#include "tests/unit/exec-test.h"

/* ---- a resolver that says what the test wants ---- */

static int resolver_error;
static texts resolver_addresses; /* dotted quads, or with colons */
static std::string asked;
static struct addrinfo asked_hints;
static int results_alive;

static struct addrinfo *make_result(const std::string &text)
{
    auto *result = static_cast<struct addrinfo *>(calloc(1, sizeof(struct addrinfo)));
    auto *room = static_cast<struct sockaddr_storage *>(calloc(1, sizeof(struct sockaddr_storage)));
    result->ai_addr = reinterpret_cast<struct sockaddr *>(room);
    if (text.find(':') == std::string::npos) {
        result->ai_family = room->ss_family = AF_INET;
        inet_pton(AF_INET, text.c_str(), &reinterpret_cast<struct sockaddr_in *>(room)->sin_addr);
    } else {
        auto *address = reinterpret_cast<struct sockaddr_in6 *>(room);
        result->ai_family = room->ss_family = AF_INET6;
        address->sin6_flowinfo = htonl(0x01020304); /* where the other family has its address */
        inet_pton(AF_INET6, text.c_str(), &address->sin6_addr);
    }
    results_alive++;
    return result;
}

extern "C" int getaddrinfo(const char *host, const char *service, const struct addrinfo *hints,
                           struct addrinfo **found)
{
    asked = host;
    asked_hints = *hints;
    EXPECT_EQ(service, nullptr);
    struct addrinfo **tail = found;
    *tail = nullptr;
    if (resolver_error != 0)
        return resolver_error;
    for (const std::string &text : resolver_addresses) {
        *tail = make_result(text);
        tail = &(*tail)->ai_next;
    }
    return 0;
}

extern "C" void freeaddrinfo(struct addrinfo *list) noexcept
{
    while (list) {
        struct addrinfo *next = list->ai_next;
        free(list->ai_addr);
        free(list);
        list = next;
        results_alive--;
    }
}

class nslookup : public exec_test {
protected:
    void SetUp() override
    {
        exec_test::SetUp();
        resolver_error = 0;
        resolver_addresses.clear();
        results_alive = 0;
        ts_mode = TS_FOR_FRONT_END;
        exec_running = 1;
    }
    void TearDown() override
    {
        EXPECT_EQ(results_alive, 0);
        exec_test::TearDown();
    }
    static std::string packet(const std::string &status, const std::string &output)
    {
        return "{\"msgType\": 409, \"status\": \"" + status + "\", \"output\": \"" + output + "\"}";
    }
};

TEST_F(nslookup, each_address_is_a_piece)
{
    resolver_addresses = {"10.0.0.1", "10.0.0.2"};
    EXPECT_EQ(do_nslookup("a.example"), 0);
    EXPECT_EQ(packets,
              (texts{packet("Initiated", ""), packet("InProgress", "Name:a.example Address:10.0.0.1 "),
                     packet("InProgress", "Name:a.example Address:10.0.0.2 "), packet("Complete", "")}));
    EXPECT_EQ(exec_running, 0);
    EXPECT_EQ(asked, "a.example");
    EXPECT_EQ(asked_hints.ai_family, AF_UNSPEC);
    EXPECT_EQ(asked_hints.ai_socktype, SOCK_DGRAM);
    EXPECT_TRUE(was_logged("do_nslookup: ENTRY host=a.example"));
    EXPECT_NE(file_text(AGENT_LOG_FILE).find(":Name:\ta.example Address:10.0.0.2\n\n"), std::string::npos);
}

TEST_F(nslookup, addresses_of_another_family_are_no_garbage)
{
    resolver_addresses = {"2001:db8::1", "10.0.0.1", "2001:db8::2", "0.0.0.0"};
    EXPECT_EQ(do_nslookup("mixed.example"), 0);
    EXPECT_EQ(packets,
              (texts{packet("Initiated", ""), packet("InProgress", "Name:mixed.example Address:10.0.0.1 "),
                     packet("Complete", "")}));
    EXPECT_EQ(file_text(AGENT_LOG_FILE).find("1.2.3.4"), std::string::npos);
    packets.clear();
    resolver_addresses = {"2001:db8::1"};
    EXPECT_EQ(do_nslookup("six.example"), 0);
    EXPECT_EQ(packets, (texts{packet("Initiated", ""), packet("Complete", "")}));
}

TEST_F(nslookup, a_name_that_does_not_resolve_ends_with_the_resolvers_words)
{
    resolver_error = EAI_NONAME;
    EXPECT_EQ(do_nslookup("nowhere.example"), -1);
    EXPECT_EQ(packets, texts{packet("Complete", "Name or service not known")});
    EXPECT_EQ(exec_running, 0);
    EXPECT_TRUE(was_logged("Name or service not known"));
}

TEST_F(nslookup, the_controller_hears_a_failure_at_once)
{
    ts_mode = TS_FOR_CONTROLLER;
    resolver_error = EAI_AGAIN;
    EXPECT_EQ(do_nslookup("nowhere.example"), -1);
    EXPECT_EQ(take_queued(), texts{packet("Complete", "Temporary failure in name resolution")});
    EXPECT_EQ(ev_count_timers(), 0) << "and nothing follows";
}

TEST_F(nslookup, through_the_request)
{
    resolver_addresses = {"10.0.0.1", "10.0.0.2"};
    exec_running = 0;
    EXPECT_EQ(parse("{\"command\": \"nslookup\", \"arguments\": {\"host\": \"a.example\"}, \"duration\": 9}"),
              0);
    EXPECT_EQ(start_exec_cmd(nullptr, TS_FOR_CONTROLLER, nullptr), 0);
    EXPECT_EQ(exec_running, 0);
    EXPECT_EQ(ev_count_timers(), 1) << "the one that sends, none for the duration";
    EXPECT_EQ(take_queued(), texts{packet("Initiated", "")});
    for (int second = 0; second < 2; second++) {
        ev_reset(); /* a timer that fires is gone */
        send_ts_data_cb(nullptr);
    }
    EXPECT_EQ(take_queued(),
              (texts{packet("InProgress", "Name:a.example Address:10.0.0.1 Name:a.example Address:10.0.0.2 "),
                     packet("Complete", "")}));
    EXPECT_TRUE(was_logged("Starting command execution for nslookup"));
    EXPECT_TRUE(was_logged("start_exec_cmd: command [nslookup] host [a.example]"));
}

TEST_F(nslookup, a_long_name_keeps_its_line)
{
    const std::string host(127, 'h');
    resolver_addresses = {"255.255.255.255"};
    EXPECT_EQ(do_nslookup(host.c_str()), 0);
    EXPECT_EQ(packets[1], packet("InProgress", "Name:" + host + " Address:255.255.255.255 "));
}
