#include "agentctl/command-request.h"

#include <gtest/gtest.h>

#include "agent/owners.h"

/* The request that these words make, or "!" and the complaint. */
static std::string request(std::vector<std::string> words)
{
    words.insert(words.begin(), "run");
    std::vector<char *> argv;
    for (std::string &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    std::string complaint;
    json_ptr object(command_request(static_cast<int>(words.size()), argv.data(), &complaint));
    if (!object)
        return "!" + complaint;
    EXPECT_EQ(complaint, "");
    malloc_text text(json_dumps(json_object_get(object.get(), "arguments"), JSON_COMPACT));
    json_t *duration = json_object_get(object.get(), "duration");
    return std::string(json_string_value(json_object_get(object.get(), "command"))) + " " + text.get() +
           (duration ? " " + std::to_string(json_integer_value(duration)) : "");
}

TEST(agentctl_request, options_become_arguments_in_their_order)
{
    EXPECT_EQ(request({"ping", "-t", "9", "-c", "4", "10.0.0.1"}),
              "ping {\"ttl\":9,\"count\":4,\"host\":\"10.0.0.1\"}");
    EXPECT_EQ(request({"-d", "5", "traceroute", "-I", "h"}),
              "traceroute {\"traceMethod\":\"icmp\",\"host\":\"h\"} 5");
    EXPECT_EQ(request({"tcpdump", "-v", "host", "a", "or", "b"}),
              "tcpdump {\"verbose\":true,\"filter\":\"host a or b\"}");
    EXPECT_EQ(request({"nslookup", "a.example"}), "nslookup {\"host\":\"a.example\"}");
}

TEST(agentctl_request, what_the_device_would_misunderstand_is_refused_here)
{
    EXPECT_EQ(request({}), "!a command is missing");
    EXPECT_EQ(request({"reboot"}), "!there is no command reboot");
    EXPECT_EQ(request({"ping"}), "!ping wants a host");
    EXPECT_EQ(request({"ping", "a", "b"}), "!one host at a time");
    EXPECT_EQ(request({"ping", "-f", "a"}), "!ping has no option -f here");
    EXPECT_EQ(request({"ping", "a", "-c", "1"}), "!ping has no option -c here");
    EXPECT_EQ(request({"ping", "-c"}), "!-c wants a number");
    EXPECT_EQ(request({"ping", "-c", "1;reboot", "a"}), "!-c wants a number");
    EXPECT_EQ(request({"tcpdump", "-i", "-w"}), "!-i wants a name");
    EXPECT_EQ(request({"tcpdump", "-w", "/etc/passwd"}), "!tcpdump has no option -w here");
    EXPECT_EQ(request({"-d", "0", "ping", "a"}), "!-d wants a number of seconds");
    EXPECT_EQ(request({"ping", "\xFF"}), "!that is not UTF-8");
}

TEST(agentctl_request, texts_that_the_agent_would_cut_are_refused)
{
    std::string host(127, 'h');
    EXPECT_EQ(request({"ping", host}), "ping {\"host\":\"" + host + "\"}");
    EXPECT_EQ(request({"ping", host + "h"}), "!the host is too long");
    EXPECT_EQ(request({"tcpdump", host, "x"}), "!the filter is longer than 127 characters");
}
