/*
 * Requests for commands: what is approved, and what the arguments become.
 */
#include "operations/disconnect-clients.h"
#include "tests/unit/exec-test.h"
#include "tests/unit/fake-calloc.h"
#include "tests/unit/fake-clock.h"

class exec_request : public exec_test {};

/* ---- the command ---- */

TEST_F(exec_request, approved_commands_are_taken)
{
    for (const char *name : {"ping", "traceroute", "nslookup", "tcpdump", "log", "wifiperf"}) {
        EXPECT_EQ(parse(std::string("{\"command\": \"") + name + "\"}"), NO_ERROR);
        EXPECT_STREQ(exec_cmd.command, name);
        EXPECT_TRUE(was_logged(std::string("Command from Orvanta: ") + name + " "));
    }
    EXPECT_STREQ(error_text, "");
}

TEST_F(exec_request, others_are_refused)
{
    for (const char *name :
         {"Ping", "ping ", "pingx", "", "/bin/ping", "sh", "reboot", "disconnect-clients"}) {
        error_text[0] = '\0';
        EXPECT_EQ(parse(std::string("{\"command\": \"") + name + "\"}"), BAD_REQUEST) << name;
        EXPECT_STREQ(error_text, "Trying to execute unapproved command") << name;
        EXPECT_TRUE(was_logged(std::string("Unapproved command : ") + name + " "));
        EXPECT_STREQ(exec_cmd.command, "");
    }
}

TEST_F(exec_request, without_a_command_the_text_stays_as_it_was)
{
    for (const char *request : {"{}", "{\"command\": 5}", "{\"command\": null}", "[]"}) {
        snprintf(error_text, sizeof(error_text), "from before");
        clear_log();
        EXPECT_EQ(parse(request), BAD_REQUEST) << request;
        EXPECT_STREQ(error_text, "from before");
        EXPECT_TRUE(was_logged("No command found"));
    }
}

TEST_F(exec_request, no_request_is_an_error_of_ours)
{
    EXPECT_EQ(parse_exec_cmd(nullptr, error_text), INTERNAL_ERROR);
    EXPECT_STREQ(error_text, "jobj is NULL, ideally this should never happen");
}

TEST_F(exec_request, the_duration)
{
    static const struct {
        const char *json;
        int32_t seconds;
    } rows[] = {{"5", 5},     {"0", 0},    {"-3", -3}, {"99999999999", INT32_MAX},
                {"\"5\"", 0}, {"true", 0}, {"5.5", 0}, {"null", 0}};
    for (const auto &row : rows) {
        EXPECT_EQ(parse(std::string("{\"command\": \"ping\", \"duration\": ") + row.json + "}"), NO_ERROR);
        EXPECT_EQ(exec_cmd.duration, row.seconds) << row.json;
        EXPECT_TRUE(was_logged("Got duration " + std::to_string(row.seconds)));
    }
    EXPECT_EQ(parse("{\"command\": \"ping\"}"), NO_ERROR);
    EXPECT_EQ(exec_cmd.duration, 0);
}

/* ---- arguments ---- */

TEST_F(exec_request, a_count_and_a_host)
{
    parse_arguments("ping", "{\"count\": 4, \"host\": \"10.0.0.1\"}");
    EXPECT_EQ(vector(), (texts{"-c", "4", "10.0.0.1"}));
    EXPECT_EQ(exec_cmd.argc, 2);
    EXPECT_TRUE(was_logged("Parsed argv data"));
    EXPECT_TRUE(was_logged("argv : -c"));
    EXPECT_TRUE(was_logged("argv : 4"));
}

TEST_F(exec_request, every_row_of_the_table)
{
    parse_arguments("traceroute", "{\"size\": 1, \"ttl\": 2, \"dontFrag\": true, \"traceMethod\": \"icmp\", "
                                  "\"showTtl\": true, \"verbose\": true}");
    EXPECT_EQ(vector(), (texts{"-s", "1", "-t", "2", "-F", "-I", "-l", "-v"}));
    parse_arguments("tcpdump", "{\"interface\": \"eth0\", \"filter\": \"port 53\", \"count\": \"7\"}");
    EXPECT_EQ(vector(), (texts{"-i", "eth0", "-c", "7", "-l", "-q", "-n", "-#", "port 53"}));
}

TEST_F(exec_request, a_name_that_begins_with_a_key_is_meant)
{
    parse_arguments("ping", "{\"hostname\": \"a.example\", \"counter\": 3}");
    EXPECT_EQ(vector(), (texts{"-c", "3", "a.example"}));
    parse_arguments("ping", "{\"hos\": \"b\", \"Host\": \"b\", \"xcount\": 3, \"\": 1}");
    EXPECT_EQ(vector(), texts{});
}

TEST_F(exec_request, options_come_in_the_order_of_the_request_and_the_last_host_counts)
{
    parse_arguments("ping", "{\"ttl\": 1, \"host\": \"a\", \"count\": 2, \"host2\": \"b\", \"count2\": 3}");
    EXPECT_EQ(vector(), (texts{"-t", "1", "-c", "2", "-c", "3", "b"}));
}

TEST_F(exec_request, the_kinds_of_values)
{
    static const struct {
        const char *json;
        texts entries;
    } rows[] = {
        {"4", {"-v", "4"}},
        {"-4", {"-v", "-4"}},
        {"99999999999", {"-v", "2147483647"}},
        {"-99999999999", {"-v", "-2147483648"}},
        {"\"text\"", {"-v", "text"}},
        {"\"\"", {"-v", ""}},
        {"true", {"-v"}},
        {"false", {}},
        {"null", {}},
        {"1.5", {}},
        {"[1]", {}},
        {"{\"a\": 1}", {}},
    };
    for (const auto &row : rows) {
        parse_arguments("ping", std::string("{\"verbose\": ") + row.json + "}");
        EXPECT_EQ(vector(), row.entries) << row.json;
    }
    parse_arguments("ping", "{\"dontFrag\": false, \"host\": 5, \"filter\": true}");
    EXPECT_EQ(vector(), texts{});
}

TEST_F(exec_request, the_trace_method)
{
    static const struct {
        const char *json;
        texts entries;
    } rows[] = {{"\"icmp\"", {"-I"}}, {"\"icmp6\"", {"-I"}}, {"\"udp\"", {}}, {"\"ICMP\"", {}},
                {"\"icm\"", {}},      {"true", {}},          {"1", {}}};
    for (const auto &row : rows) {
        parse_arguments("traceroute", std::string("{\"traceMethod\": ") + row.json + "}");
        EXPECT_EQ(vector(), row.entries) << row.json;
    }
}

TEST_F(exec_request, what_is_no_object_holds_no_arguments)
{
    for (const char *arguments : {"[\"host\"]", "\"host\"", "5", "null"}) {
        parse_arguments("ping", arguments);
        EXPECT_EQ(vector(), texts{}) << arguments;
    }
}

TEST_F(exec_request, a_request_forgets_the_one_before)
{
    parse_arguments("ping", "{\"count\": 4, \"host\": \"10.0.0.1\"}");
    parse_arguments("ping", "{}");
    EXPECT_EQ(vector(), texts{});
}

TEST_F(exec_request, tcpdump_always_ends_with_its_own_and_the_filter_stays)
{
    parse_arguments("tcpdump", "{}");
    EXPECT_EQ(vector(), (texts{"-l", "-q", "-n", "-#", ""}));
    parse_arguments("tcpdump", "{\"filter\": \"icmp\", \"host\": \"h\"}");
    EXPECT_EQ(vector(), (texts{"h", "-l", "-q", "-n", "-#", "icmp"}));
    parse_arguments("tcpdump", "{}");
    EXPECT_EQ(vector(), (texts{"-l", "-q", "-n", "-#", "icmp"})) << "from the request before";
    parse_arguments("tcpdump", "{\"filter\": \"\"}");
    EXPECT_EQ(vector(), (texts{"-l", "-q", "-n", "-#", ""}));
}

/* ---- bounds ---- */

TEST_F(exec_request, there_is_room_for_eleven_entries)
{
    parse_arguments("ping", "{\"count1\": 1, \"count2\": 2, \"count3\": 3, \"count4\": 4, \"count5\": 5, "
                            "\"ttl\": 6, \"verbose\": true, \"dontFrag\": true, \"host\": \"h\"}");
    EXPECT_EQ(vector(), (texts{"-c", "1", "-c", "2", "-c", "3", "-c", "4", "-c", "5", "-v", "h"}))
        << "an option without its value is not left behind";
    EXPECT_EQ(exec_cmd.argc, 11);
    EXPECT_TRUE(was_logged("Too many arguments, left out ttl: -t 6"));
    EXPECT_TRUE(was_logged("Too many arguments, left out dontFrag: -F "));
    std::string many = "{";
    for (int i = 0; i < 5000; i++)
        many += "\"size" + std::to_string(i) + "\": 1, ";
    parse_arguments("tcpdump", many + "\"host\": \"h\", \"filter\": \"f\"}");
    EXPECT_EQ(vector().size(), 10u + 1 + 5);
}

TEST_F(exec_request, long_texts_are_cut)
{
    const std::string long_text(300, 'x');
    parse_arguments("ping", "{\"size\": \"" + long_text + "\", \"host\": \"" + long_text + "\"}");
    EXPECT_EQ(vector(), (texts{"-s", std::string(255, 'x'), std::string(127, 'x')}));
    EXPECT_TRUE(was_logged("Argument size is longer than 255 bytes, cut off: " + std::string(45, 'x')));
    EXPECT_TRUE(was_logged("Argument host is longer than 127 bytes, cut off: " + std::string(173, 'x')));
    parse_arguments("tcpdump", "{\"filter\": \"" + std::string(128, 'f') + "\"}");
    EXPECT_EQ(vector().back(), std::string(127, 'f'));
    EXPECT_TRUE(was_logged("Argument filter is longer than 127 bytes, cut off: f"));
    clear_log();
    parse_arguments("ping", "{\"size\": \"" + std::string(255, 'x') + "\", \"host\": \"" +
                                std::string(127, 'x') + "\"}");
    EXPECT_EQ(vector(), (texts{"-s", std::string(255, 'x'), std::string(127, 'x')}));
    for (const std::string &line : logged())
        EXPECT_EQ(line.find("cut off"), std::string::npos) << line;
}

TEST_F(exec_request, no_character_is_cut_in_two)
{
    parse_arguments("ping", "{\"size\": \"" + std::string(254, 'x') + "\u20ac\", \"host\": \"" +
                                std::string(125, 'x') + "\u20ac\"}");
    EXPECT_EQ(vector(), (texts{"-s", std::string(254, 'x'), std::string(125, 'x')}));
}

TEST_F(exec_request, texts_are_taken_as_they_are)
{
    const texts hostile = {"%s%n%99999d", "; reboot", "$(reboot)", "`reboot`",       "a b\tc\nd", "'\"\\",
                           "*",           "-c",       "--",        "\u20ac\x01\x7F", "|&<>"};
    for (const std::string &text : hostile) {
        json_ptr request(json_pack("{s:s, s:{s:s, s:s, s:s}}", "command", "tcpdump", "arguments", "size",
                                   text.c_str(), "host", text.c_str(), "filter", text.c_str()));
        ASSERT_EQ(parse_exec_cmd(request.get(), error_text), NO_ERROR);
        EXPECT_EQ(vector(), (texts{"-s", text, text, "-l", "-q", "-n", "-#", text}));
    }
}

/* ---- one at a time ---- */

TEST_F(exec_request, while_one_runs_it_is_ended_and_the_new_one_refused)
{
    for (const char *request : {"{\"command\": \"ping\"}", "{\"command\": \"wifiperf\"}", "{}"}) {
        exec_running = 1;
        ts_mode = TS_FOR_CONTROLLER;
        EXPECT_EQ(parse(request), BAD_REQUEST);
        EXPECT_STREQ(error_text, "Command execution already in progress, aborting old command");
        EXPECT_TRUE(was_logged("Command execution already in progress, aborting to start new command"));
        EXPECT_EQ(exec_running, 0) << request;
        EXPECT_EQ(take_queued(), texts{"{\"msgType\": 410}"});
    }
    EXPECT_EQ(parse("{\"command\": \"ping\"}"), NO_ERROR) << "sent again";
}

/* ---- clients that are sent away ---- */

static texts sent_away;
static int sending_away_seconds;

class disconnect_clients : public exec_test {
protected:
    void SetUp() override
    {
        exec_test::SetUp();
        sent_away.clear();
        sta_disconnect_cb = [](const char *mac) {
            sent_away.emplace_back(mac);
            return 1; /* a failure changes nothing */
        };
    }
    static std::string with(const std::string &arguments)
    {
        return "{\"command\": \"disconnect-clients\", \"arguments\": " + arguments + "}";
    }
};

TEST_F(disconnect_clients, one_after_the_other)
{
    json_ptr request = json(with("{\"macs\": [\"02:00:00:00:00:01\", 5, \"ALL\", null]}"));
    ASSERT_EQ(parse_exec_cmd(request.get(), error_text), NO_ERROR);
    EXPECT_EQ(service_cmd_pending, 1);
    EXPECT_EQ(sent_away, texts{});
    char *name = nullptr;
    EXPECT_EQ(start_exec_cmd(request.get(), TS_FOR_CONTROLLER, &name), EXEC_STATUS);
    malloc_text owner(name);
    EXPECT_STREQ(name, "disconnect-clients");
    EXPECT_EQ(sent_away, (texts{"02:00:00:00:00:01", "ALL"}));
    EXPECT_EQ(ts_mode, TS_FOR_CONTROLLER);
    EXPECT_EQ(service_cmd_pending, 0);
    EXPECT_TRUE(was_logged("Service command disconnect-clients is getting triggered"));
    EXPECT_TRUE(was_logged("Macs are not in right string format"));
    EXPECT_EQ(exec_running, 0);
    EXPECT_EQ(txq, nullptr);
}

TEST_F(disconnect_clients, what_is_refused)
{
    static const struct {
        const char *arguments, *text, *log;
    } rows[] = {
        {"[]", "argument is not valid", "argument is not valid"},
        {"null", "argument is not valid", "argument is not valid"},
        {"\"macs\"", "argument is not valid", "argument is not valid"},
        {"{}", "macs list is empty", "No mac List found"},
        {"{\"mac\": [\"ALL\"]}", "macs list is empty", "No mac List found"},
        {"{\"macs\": []}", "sta macs array is empty", "sta mac array is empty"},
        {"{\"macs\": \"ALL\"}", "sta macs array is empty", "sta mac array is empty"},
        {"{\"macs\": null}", "sta macs array is empty", "sta mac array is empty"},
    };
    for (const auto &row : rows) {
        clear_log();
        EXPECT_EQ(parse(with(row.arguments)), BAD_REQUEST) << row.arguments;
        EXPECT_STREQ(error_text, row.text);
        EXPECT_TRUE(was_logged(row.log)) << row.arguments;
        EXPECT_EQ(service_cmd_pending, 0);
    }
    EXPECT_EQ(parse("{\"command\": \"disconnect-clients\"}"), BAD_REQUEST);
    EXPECT_STREQ(error_text, "argument is not valid");
}

TEST_F(disconnect_clients, while_one_is_pending)
{
    EXPECT_EQ(parse(with("{\"macs\": [\"ALL\"]}")), NO_ERROR);
    EXPECT_EQ(parse(with("{\"macs\": [\"ALL\"]}")), BAD_REQUEST);
    EXPECT_STREQ(error_text, "Service Command execution already in progress, so cannor process it");
    EXPECT_TRUE(was_logged("Service Command execution already in progress, abortin"));
}

TEST_F(disconnect_clients, a_start_that_names_nobody_fails)
{
    for (const char *request : {"{}", "{\"arguments\": []}", "{\"arguments\": {}}"}) {
        EXPECT_EQ(parse(with("{\"macs\": [\"ALL\"]}")), NO_ERROR);
        clear_log();
        char *name = nullptr;
        EXPECT_EQ(start_exec_cmd(json(request).get(), TS_FOR_CONTROLLER, &name), EXEC_FAILED);
        malloc_text owner(name);
        EXPECT_STREQ(name, "disconnect-clients");
        EXPECT_TRUE(was_logged("No mac List found"));
        EXPECT_EQ(service_cmd_pending, 0);
    }
    EXPECT_EQ(parse(with("{\"macs\": [\"ALL\"]}")), NO_ERROR);
    EXPECT_EQ(start_exec_cmd(nullptr, TS_FOR_FRONT_END, nullptr), EXEC_FAILED);
    EXPECT_EQ(ts_mode, TS_FOR_FRONT_END);
    EXPECT_EQ(sent_away, texts{});
}

TEST_F(disconnect_clients, it_takes_the_output_of_a_running_command_from_nobody)
{
    exec_running = 1;
    ts_mode = TS_FOR_CONTROLLER;
    json_ptr request = json(with("{\"macs\": [\"ALL\"]}"));
    ASSERT_EQ(parse_exec_cmd(request.get(), error_text), NO_ERROR);
    EXPECT_EQ(start_exec_cmd(request.get(), TS_FOR_FRONT_END, nullptr), EXEC_STATUS);
    EXPECT_EQ(ts_mode, TS_FOR_CONTROLLER);
    EXPECT_EQ(exec_running, 1);
}

TEST_F(disconnect_clients, a_daemon_that_does_not_answer_is_given_up)
{
    sending_away_seconds = 10; /* as long as a call may last */
    sta_disconnect_cb = [](const char *mac) {
        sent_away.emplace_back(mac);
        fake_clock_advance(sending_away_seconds);
        return 1;
    };
    json_ptr request = json(with("{\"macs\": [\"1\", \"2\", \"3\", \"4\", \"5\"]}"));
    ASSERT_EQ(parse_exec_cmd(request.get(), error_text), NO_ERROR);
    EXPECT_EQ(start_exec_cmd(request.get(), TS_FOR_CONTROLLER, nullptr), EXEC_STATUS);
    EXPECT_EQ(sent_away, (texts{"1", "2"}));
    EXPECT_TRUE(was_logged("The configuration daemon is too slow, 3 clients are left out"));
}

TEST_F(disconnect_clients, names_need_memory)
{
    ASSERT_EQ(parse(with("{\"macs\": [\"ALL\"]}")), NO_ERROR);
    json_ptr request = json(with("{\"macs\": [\"ALL\"]}"));
    char *name = nullptr;
    callocs_left = 0;
    EXPECT_EQ(start_exec_cmd(request.get(), TS_FOR_CONTROLLER, &name), EXEC_STATUS);
    callocs_left = -1;
    EXPECT_EQ(name, nullptr);
    EXPECT_TRUE(was_logged("start_exec_cmd: Out of memory so command execution status  start/stop event not "
                           "generating"));
    callocs_left = 0;
    EXPECT_EQ(abort_exec_cmd(json("{\"command\": \"wifiperf\"}").get(), &name), EXEC_STATUS);
    callocs_left = -1;
    EXPECT_EQ(name, nullptr);
    EXPECT_TRUE(was_logged("abort_exec_cmd: Out of memory so command execution status  start/stop event not "
                           "generating"));
}
