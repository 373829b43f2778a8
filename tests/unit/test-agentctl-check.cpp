#include "agentctl/check-verdict.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "agentctl/check-onboarding.h"
#include "agentctl/check-run.h"
#include "agentctl/check-way.h"

static const int64_t NOW = 1700000000;
static const int64_t DAY = 86400;

static check_step step(const char *name, const char *outcome, json_t *data = nullptr)
{
    check_step made;
    made.source = "default cloud";
    made.name = name;
    made.outcome = outcome;
    made.data.reset(data);
    return made;
}

static json_t *certificate(int64_t from, int64_t to)
{
    return json_pack("{s:I, s:I}", DATA_VALID_FROM, static_cast<json_int_t>(from), DATA_VALID_TO,
                     static_cast<json_int_t>(to));
}

static check_step clock_for(json_t *data, int64_t now = NOW)
{
    check_steps steps;
    steps.push_back(step("certificate", STEP_OK, data));
    return judge_clock(steps, now);
}

TEST(agentctl_check, the_clock_against_what_the_servers_show)
{
    EXPECT_EQ(clock_for(certificate(NOW - DAY, NOW + DAY)).outcome, STEP_OK);
    EXPECT_EQ(clock_for(nullptr).outcome, STEP_UNSURE);
    check_step behind = clock_for(certificate(NOW + 3 * DAY, NOW + 9 * DAY));
    EXPECT_EQ(behind.outcome, STEP_WARNING);
    EXPECT_NE(behind.detail.find("it is behind: a certificate becomes valid in 3 days"), std::string::npos);
    check_step ahead = clock_for(certificate(NOW - 9 * DAY, NOW - 2 * DAY));
    EXPECT_EQ(ahead.outcome, STEP_WARNING);
    EXPECT_NE(ahead.detail.find("a certificate has expired 2 days ago"), std::string::npos);
    EXPECT_EQ(clock_for(certificate(0, NOW), 1000).detail.substr(0, 14), "it is not set:");
}

TEST(agentctl_check, the_clock_against_the_services)
{
    EXPECT_EQ(clock_for(json_pack("{s:I}", DATA_SERVER_TIME, json_int_t{NOW + 300})).outcome, STEP_OK);
    EXPECT_NE(
        clock_for(json_pack("{s:I}", DATA_SERVER_TIME, json_int_t{NOW + 301})).detail.find("5 minutes ahead"),
        std::string::npos);
    EXPECT_NE(
        clock_for(json_pack("{s:I}", DATA_SERVER_TIME, json_int_t{NOW - 7200})).detail.find("2 hours behind"),
        std::string::npos);
}

TEST(agentctl_check, a_way_is_open_only_when_its_last_step_was_passed)
{
    check_steps steps;
    steps.push_back(step(STEP_ONBOARDING, STEP_OK));
    EXPECT_FALSE(judge_way(steps, "default cloud").open);
    EXPECT_TRUE(judge_way(steps, "default cloud").onboarded);
    steps.push_back(step(STEP_LAST, STEP_FAILED));
    EXPECT_FALSE(judge_way(steps, "default cloud").open);
    steps.back().outcome = STEP_WARNING;
    EXPECT_TRUE(judge_way(steps, "default cloud").open);
    EXPECT_FALSE(judge_way(steps, "static URL").open) << "another source's";
    steps.front().outcome = STEP_UNSURE;
    EXPECT_TRUE(judge_way(steps, "default cloud").unsure);
    EXPECT_FALSE(judge_way(steps, "default cloud").onboarded);
}

TEST(agentctl_check, the_account_token_is_taken_out_of_the_request)
{
    std::string request = "GET /x?mac=a&type=Q&velmoraId=abc:d&f HTTP/1.1\r\nHOST:h:443\r\n\n";
    EXPECT_TRUE(leave_out_token(&request));
    EXPECT_EQ(request, "GET /x?mac=a&type=Q HTTP/1.1\r\nHOST:h:443\r\n\n");
    EXPECT_FALSE(leave_out_token(&request));
    EXPECT_EQ(request, "GET /x?mac=a&type=Q HTTP/1.1\r\nHOST:h:443\r\n\n");
}

TEST(agentctl_check, the_date_of_an_answer)
{
    EXPECT_EQ(http_date("HTTP/1.1 302 Found\r\nDate: Tue, 14 Nov 2023 22:13:20 GMT\r\n\r\n"), NOW);
    EXPECT_EQ(http_date("HTTP/1.1 302 Found\r\nDate: now\r\n\r\n"), 0);
    EXPECT_EQ(http_date("HTTP/1.1 302 Found\r\n\r\n"), 0);
}

static void show_nothing(const check_step &) {}

/* A source whose host is this machine. */
static address_source local_source(int32_t port)
{
    return {"default cloud", "a test", SOURCE_IS_CANDIDATE, "127.0.0.1", "127.0.0.1", port, true};
}

TEST(agentctl_check, the_deadline_of_all_cuts_a_step_short)
{
    fd_guard listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    struct sockaddr_in address = {};
    socklen_t size = sizeof(address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(listener.fd, reinterpret_cast<struct sockaddr *>(&address), size), 0);
    ASSERT_EQ(listen(listener.fd, 5), 0);
    ASSERT_EQ(getsockname(listener.fd, reinterpret_cast<struct sockaddr *>(&address), &size), 0);

    check_steps steps;
    int64_t began = milliseconds_now();
    run_way(local_source(ntohs(address.sin_port)), began + 1000, &steps, show_nothing);
    int64_t took = milliseconds_now() - began;
    ASSERT_EQ(steps.size(), 3U);
    EXPECT_EQ(steps[1].name, "connection");
    EXPECT_EQ(steps[1].outcome, STEP_OK);
    EXPECT_EQ(steps[2].name, "certificate") << "a server that says nothing";
    EXPECT_EQ(steps[2].outcome, STEP_FAILED);
    EXPECT_EQ(steps[2].detail.substr(0, 17), "no answer within ");
    EXPECT_GE(took, 1000);
    EXPECT_LT(took, 3000);
}

TEST(agentctl_check, a_refused_connection_ends_the_way)
{
    check_steps steps;
    run_way(local_source(9), milliseconds_now() + 20000, &steps, show_nothing);
    ASSERT_EQ(steps.size(), 2U);
    EXPECT_EQ(steps[1].outcome, STEP_FAILED);
    EXPECT_EQ(steps[1].detail, "127.0.0.1 port 9: Error connecting 111 - Connection refused");
    EXPECT_FALSE(judge_way(steps, "default cloud").open);
}
