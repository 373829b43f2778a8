#include "agentctl/health.h"

#include <ctime>

#include <gtest/gtest.h>

#include "agent/build-constants.h"
#include "agent/da.h"
#include "agent/text.h"
#include "agentctl/next-attempt.h"
#include "platform/connection-status.h"
#include "platform/controller-sources.h"
#include "tests/unit/support.h"

static const char CLOUD[] = "Connected to " ORVANTA_CLOUD_HOST;

class agentctl_health : public testing::Test {
protected:
    void SetUp() override
    {
        fresh_agent();
        for (const controller_source_row &row : controller_sources)
            write_file(row.path, "");
    }

    static agent_process running(void)
    {
        agent_process agent;
        agent.pid = 12;
        return agent;
    }
};

TEST_F(agentctl_health, is_judged_by_the_process_the_heartbeat_and_the_text)
{
    heartbeat fresh = judge_heartbeat(1000, 1000 + HEARTBEAT_STALE_SECONDS, 5000);
    heartbeat stale = judge_heartbeat(1000, 1001 + HEARTBEAT_STALE_SECONDS, 5000);
    EXPECT_EQ(judge_health(running(), fresh, CLOUD), HEALTH_CONNECTED);
    EXPECT_EQ(judge_health(running(), stale, CLOUD), HEALTH_NOT_ALIVE);
    EXPECT_EQ(judge_health(agent_process(), fresh, CLOUD), HEALTH_NOT_ALIVE);
    EXPECT_EQ(judge_health(running(), heartbeat(), CLOUD), HEALTH_CONNECTED) << "none touched yet";
    for (const char *text : {"", "Connecting", "Not Connected", "Connected", "Device Approval Pending"})
        EXPECT_EQ(judge_health(running(), fresh, text), HEALTH_NOT_CONNECTED) << text;
}

TEST_F(agentctl_health, a_clock_that_was_set_makes_no_agent_hang)
{
    EXPECT_FALSE(judge_heartbeat(100, 1700000000, 300).known);
    EXPECT_FALSE(judge_heartbeat(1700000000, 100, 300).known);
    EXPECT_TRUE(judge_heartbeat(1700000000, 1700000299, 300).known);
    EXPECT_EQ(judge_health(running(), judge_heartbeat(100, 1700000000, 300), ""), HEALTH_NOT_CONNECTED);
}

TEST_F(agentctl_health, the_texts_are_those_that_the_agent_publishes)
{
    copy_text(g_orv_router, ORVANTA_CLOUD_HOST);
    platform_set_orv_connection_state(ORV_CONNECTED, nullptr);
    EXPECT_EQ(file_text(ORV_STATE_FILE), CLOUD);
    agent_health health = read_health(time(nullptr));
    EXPECT_EQ(health.connection, CLOUD);
    EXPECT_EQ(health.verdict, HEALTH_NOT_ALIVE) << "no such process";
    connection_status_reset();
}

TEST_F(agentctl_health, the_options_of_the_agent)
{
    agent_process agent;
    read_agent_options({"/usr/sbin/device-agent", "-d", "3"}, &agent);
    EXPECT_FALSE(agent.idle);
    EXPECT_EQ(agent.static_url, "");
    read_agent_options({"device-agent", "-id3", "-shost.example"}, &agent);
    EXPECT_TRUE(agent.idle);
    EXPECT_EQ(agent.static_url, "host.example");
    read_agent_options({}, &agent);
}

TEST_F(agentctl_health, the_sources_are_read_by_the_rules_of_discovery)
{
    std::vector<address_source> none = read_address_sources();
    ASSERT_EQ(none.size(), 4U);
    for (size_t i = 0; i < 3; i++)
        EXPECT_EQ(none[i].state, SOURCE_IS_ABSENT);
    EXPECT_EQ(none[3].host, ORVANTA_CLOUD_HOST);
    EXPECT_EQ(none[3].port, 443);

    write_file(STATIC_URL_FILE, "https://" ORVANTA_CLOUD_HOST "\n");
    write_file(DHCP_43_FILE, "onprem.example:8443");
    write_file(DHCP_15_FILE, "example.net");
    std::vector<address_source> all = read_address_sources();
    EXPECT_EQ(all[0].state, SOURCE_IS_PASSED_OVER);
    EXPECT_FALSE(all[0].final);
    EXPECT_EQ(all[1].host, "onprem.example");
    EXPECT_EQ(all[1].port, 8443);
    EXPECT_TRUE(all[1].final);
    EXPECT_EQ(all[2].url, "https://orvanta.example.net");
    EXPECT_FALSE(all[2].final);

    write_file(STATIC_URL_FILE, "https://host:123456");
    EXPECT_EQ(read_address_sources()[0].state, SOURCE_IS_INVALID);
    EXPECT_TRUE(read_address_sources()[0].final);
    use_static_url("given.example");
    EXPECT_EQ(read_address_sources()[0].host, "given.example");
}

TEST_F(agentctl_health, the_source_in_force)
{
    write_file(DHCP_15_FILE, "example.net");
    std::vector<address_source> sources = read_address_sources();
    EXPECT_STREQ(source_in_force(sources, "Connecting")->name, "DHCP option 15");
    EXPECT_STREQ(source_in_force(sources, CLOUD)->name, "default cloud");
    EXPECT_EQ(source_in_force(sources, "Connected to elsewhere"), nullptr);
}

TEST_F(agentctl_health, whether_certificates_are_checked)
{
    EXPECT_EQ(certificate_rule_for(ORVANTA_CLOUD_HOST), CERTIFICATE_CHECKED);
    EXPECT_EQ(certificate_rule_for("https://onprem.example"), CERTIFICATE_ON_PREMISES);
    write_file("/mnt/flash/config/ALLOW_ALL", "");
    EXPECT_EQ(certificate_rule_for(ORVANTA_CLOUD_HOST), CERTIFICATE_ALLOW_ALL);
    EXPECT_EQ(certificate_rule_for("https://onprem.example"), CERTIFICATE_ON_PREMISES);
    std::remove("/mnt/flash/config/ALLOW_ALL");
}

/* A log line written at this time. */
static std::string line_at(int64_t when, const std::string &message)
{
    time_t seconds = static_cast<time_t>(when);
    struct tm parts = {};
    char stamp[32];
    localtime_r(&seconds, &parts);
    strftime(stamp, sizeof(stamp), "%F %H:%M:%S", &parts);
    return std::string(stamp) + " 12 device-agent.c:45:" + message + "\n";
}

TEST_F(agentctl_health, the_next_attempt_is_what_the_log_announced_last)
{
    const int64_t now = 1700000000;
    std::string early = line_at(now - 90, "Attempting (re)connection in 100 seconds");
    EXPECT_EQ(attempt_in_log(early, now), now + 10);
    EXPECT_EQ(
        attempt_in_log(early + line_at(now - 5, "Attempting (re)connection in 5 minutes") + "rest", now),
        now + 295);
    EXPECT_EQ(attempt_in_log(line_at(now, "max_reconnect_attempts  1,  reconnect_timeout 61"), now),
              now + 61);
    EXPECT_EQ(attempt_in_log(early, now + 10), 0) << "it is over";
    EXPECT_EQ(attempt_in_log("Attempting (re)connection in", now), 0);
    EXPECT_EQ(attempt_in_log("", now), 0);
}
