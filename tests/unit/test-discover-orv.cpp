#include "discovery/discover-orv.h"

#include <cstring>
#include <deque>

#include <gtest/gtest.h>
#include <unistd.h>

#include "agent/build-constants.h"
#include "agent/da.h"
#include "agent/text.h"
#include "platform/state-files.h"
#include "tests/unit/support.h"

/* ---- a stand-in for the onboarding client: answers from a list, remembers what it was asked ---- */

struct answer {
    int result;
    std::string location;
    std::string cookie;
    bool overtakes = false; /* a signal enters another state meanwhile */
};

static std::deque<answer> answers;
static std::vector<std::string> asked; /* "method host:port orv_url" */

int get_from_orvrouter(const char *host, int32_t port, char *response, const char **location,
                       int32_t *location_length, const char **cookie, int32_t *cookie_length)
{
    asked.push_back(std::to_string(da.discovery_method) + " " + host + ":" + std::to_string(port) + " " +
                    da.orv_url);
    answer now = {-1, "", ""};
    if (!answers.empty()) {
        now = answers.front();
        answers.pop_front();
    }
    if (now.overtakes) {
        state_generation++;
        da.discovery_method = DISCOVER_RESTART;
    }
    if (!now.location.empty()) {
        memcpy(response, now.location.data(), now.location.size());
        *location = response;
        *location_length = static_cast<int32_t>(now.location.size());
    }
    if (!now.cookie.empty()) {
        memcpy(response + 2000, now.cookie.data(), now.cookie.size());
        *cookie = response + 2000;
        *cookie_length = static_cast<int32_t>(now.cookie.size());
    }
    return now.result;
}

static const char CONTROLLER[] = "https://controller.example:8443/ws";
static const answer GOOD = {0, CONTROLLER, "id-1"};
static const answer BAD = {-1, "", ""};
static const char CLOUD_QUESTION[] = "4 " ORVANTA_CLOUD_HOST ":443 " ORVANTA_CLOUD_HOST;

class discover_test : public testing::Test {
protected:
    void SetUp() override
    {
        fresh_agent();
        answers.clear();
        asked.clear();
        skip_default_cloud = 0;
        for (const char *path : {STATIC_URL_FILE, DHCP_43_FILE, DHCP_15_FILE, DEVICE_ID_COOKIE_FILE})
            unlink(path);
    }
};

using questions = std::vector<std::string>;

static int idle_in_slow_mode(void) { return idle_timeout >= 300 && idle_timeout <= 359; }

/* ---- small ones ---- */

TEST_F(discover_test, method_names)
{
    const struct {
        int32_t method;
        const char *name;
    } rows[] = {{0, ""},
                {1, "DHCP Option 15"},
                {2, "DHCP Option 43"},
                {3, "From AP"},
                {4, "Default Cloud URL"},
                {5, "Unknown Error"},
                {-1, "Unknown Error"}};
    for (const auto &row : rows) {
        da.discovery_method = row.method;
        EXPECT_STREQ(row.name, get_discovery_method_name()) << row.method;
    }
}

TEST_F(discover_test, there_is_a_url_for_known_methods_only)
{
    for (int32_t method : {0, 1, 2, 3, 4}) {
        da.discovery_method = method;
        EXPECT_EQ(da.orv_url, get_orv_url()) << method;
    }
    for (int32_t method : {5, 77, -1, INT32_MIN}) {
        da.discovery_method = method;
        EXPECT_EQ(nullptr, get_orv_url()) << method;
    }
}

TEST_F(discover_test, idle_time_out)
{
    const struct {
        int32_t aggressive, wait, delta, least, most;
    } rows[] = {
        {1, 300, 60, 60, 79},    {0, 300, 60, 300, 359},
        {0, 600, 120, 600, 719}, {0, 600, 0, 600, 600}, /* no spread */
        {0, 600, -5, 600, 600},  {0, INT32_MAX, 60, INT32_MAX, INT32_MAX},
        {0, 0, 0, 1, 1},                                 /* never below a second */
        {0, -10, 0, 1, 1},       {2, 300, 60, 300, 359}, /* only 1 is aggressive */
    };
    for (const auto &row : rows) {
        aggressive_mode = row.aggressive;
        da.reconnect_wait = row.wait;
        da.reconnect_delta = row.delta;
        int32_t smallest = INT32_MAX;
        int32_t largest = 0;
        for (int i = 0; i < 300; i++) {
            set_discover_idle_time_out();
            smallest = std::min(smallest, idle_timeout);
            largest = std::max(largest, idle_timeout);
            EXPECT_TRUE(was_logged(
                (row.aggressive == 1 ? "Fast rediscover: idle_timeout " : "Slow rediscover: idle_timeout ") +
                std::to_string(idle_timeout)));
            clear_log();
        }
        EXPECT_GE(smallest, row.least) << row.wait;
        EXPECT_LE(largest, row.most) << row.wait;
        EXPECT_TRUE(row.least == row.most || smallest != largest) << "not random at all";
    }
}

/* ---- candidates ---- */

TEST_F(discover_test, candidates)
{
    const struct {
        std::string url;
        int result;
        std::string host;
        int32_t port;
    } rows[] = {
        {"https://host.example", 0, "host.example", 443},
        {"https://host.example:8443/ws?x=1", 0, "host.example", 8443},
        {"host.example", 0, "host.example", 443},
        {"host.example:81", 0, "host.example", 81},
        {"10.0.0.5", 0, "10.0.0.5", 443},
        {"https://" + std::string(247, 'h'), 0, std::string(247, 'h'), 443},
        {"https://" + std::string(300, 'h'), 0, std::string(247, 'h'), 443}, /* cut to 255 characters */
        {std::string(300, 'h'), 0, std::string(247, 'h'), 443},
        {"HTTPS://host.example", -1, "", 0}, /* gets a second scheme, and "HTTPS:" is no host */
        {"http://host.example", -1, "", 0},
        {"host.example:10443", -1, "", 0},
        {"host example", -1, "", 0},
        {"", -1, "", 0},
        {"https://", -1, "", 0},
    };
    for (const auto &row : rows) {
        char host[CANDIDATE_HOST_SIZE] = "";
        int32_t port = 0;
        EXPECT_EQ(row.result, parse_orv_url(row.url.c_str(), host, &port)) << row.url;
        if (row.result == 0) {
            EXPECT_EQ(row.host, host) << row.url;
            EXPECT_EQ(row.port, port) << row.url;
        }
    }
}

TEST_F(discover_test, what_is_logged_about_a_candidate)
{
    char host[CANDIDATE_HOST_SIZE];
    int32_t port;
    parse_orv_url("host.example:81", host, &port);
    EXPECT_TRUE(was_logged("Orvanta url = host.example:81 "));
    EXPECT_TRUE(was_logged("url= [https://host.example:81]"));
    EXPECT_TRUE(was_logged("Orvanta host host.example port 81"));
    parse_orv_url("host example", host, &port);
    EXPECT_TRUE(was_logged("Parse error : 1\n"));
    parse_orv_url("host.example:10443", host, &port);
    EXPECT_TRUE(was_logged("Failed to get orv_parsed_url details "));
}

/* ---- one lookup ---- */

TEST_F(discover_test, lookup)
{
    answers = {GOOD};
    EXPECT_EQ(0, lookup_orv_redirect("host.example", 8443));
    EXPECT_EQ(questions{"0 host.example:8443 "}, asked);
    EXPECT_STREQ(CONTROLLER, da.orv_url);
    EXPECT_STREQ("id-1", da.deviceId);
    EXPECT_EQ("id-1", file_text(DEVICE_ID_COOKIE_FILE));
    EXPECT_TRUE(was_logged("orv cloud url = https://controller.example:8443/ws, cloud len 34 "));
}

/* The NUL goes one position behind the end, and the byte before it stays: seen only over a longer text. */
TEST_F(discover_test, where_the_nul_goes)
{
    memset(da.orv_url, 'U', sizeof(da.orv_url) - 1);
    memset(da.deviceId, 'D', sizeof(da.deviceId) - 1);
    answers = {{0, "https://c", "id"}};
    EXPECT_EQ(0, lookup_orv_redirect("h", 443));
    EXPECT_STREQ("https://cU", da.orv_url);
    EXPECT_EQ('U', da.orv_url[11]);
    EXPECT_STREQ("idD", da.deviceId);
    EXPECT_EQ('D', da.deviceId[4]);
    EXPECT_EQ("idD", file_text(DEVICE_ID_COOKIE_FILE));

    memset(&da, 0, sizeof(da));
    memset(da.orv_url, 'U', 9); /* just as long: nothing shows */
    answers = {{0, "https://c", "id"}};
    EXPECT_EQ(0, lookup_orv_redirect("h", 443));
    EXPECT_STREQ("https://c", da.orv_url);
    EXPECT_STREQ("id", da.deviceId);
}

TEST_F(discover_test, the_longest_texts)
{
    std::string url = "https://" + std::string(247, 'u');
    std::string id(127, 'i');
    answers = {{0, url, id}};
    EXPECT_EQ(0, lookup_orv_redirect("h", 443));
    EXPECT_EQ(url, da.orv_url);
    EXPECT_EQ(id, da.deviceId);
    EXPECT_EQ(id, file_text(DEVICE_ID_COOKIE_FILE));
}

TEST_F(discover_test, longer_texts_leave_the_old_ones_and_succeed)
{
    copy_text(da.orv_url, "https://old");
    copy_text(da.deviceId, "old-id");
    answers = {{0, std::string(256, 'u'), std::string(128, 'i')}};
    EXPECT_EQ(0, lookup_orv_redirect("h", 443));
    EXPECT_STREQ("https://old", da.orv_url);
    EXPECT_STREQ("old-id", da.deviceId);
    EXPECT_FALSE(path_exists(DEVICE_ID_COOKIE_FILE));
}

TEST_F(discover_test, lookup_without_results)
{
    const char no_cookie[] = "Not able to find deviceId Cookie, Try Discovering again";
    const char no_url[] = "Not able to find Orvanta, Try Discovering again";
    const struct {
        answer given;
        const char *message;
    } rows[] = {
        {{0, CONTROLLER, ""}, no_cookie},
        {{-1, CONTROLLER, ""}, no_cookie},
        {{-1, CONTROLLER, "id-1"}, no_cookie},
        {{0, "", "id-1"}, no_url},
        {{0, "", ""}, no_url},
        {{-1, "", ""}, no_url},
    };
    for (const auto &row : rows) {
        clear_log();
        answers = {row.given};
        EXPECT_EQ(-1, lookup_orv_redirect("h", 443));
        EXPECT_EQ(std::vector<std::string>{std::string("discover-orv.c:") + row.message}, logged());
        EXPECT_STREQ("", da.orv_url);
        EXPECT_STREQ("", da.deviceId);
    }
}

/* ---- whole passes ---- */

TEST_F(discover_test, nothing_configured_leads_to_the_cloud)
{
    answers = {GOOD};
    da.dhcp15_allowed = 1;
    EXPECT_EQ(0, discover_orv());
    EXPECT_EQ(questions{CLOUD_QUESTION}, asked);
    EXPECT_EQ(0, da.discovery_method);
    EXPECT_EQ(0, da.dhcp15_allowed);
    EXPECT_STREQ(CONTROLLER, get_orv_url());
    EXPECT_STREQ(ORVANTA_CLOUD_HOST, g_orv_router);
    EXPECT_EQ(5, idle_timeout);
    for (const char *line :
         {"No Static URL configured ", "No dhcp 43 option  configured ", "Try DHCP Option 15 DomainName",
          "No DHCP Option 15 DomainName found", "discover_orv: method 4 orv_url [" ORVANTA_CLOUD_HOST "]",
          "Discovered method is 0 orv_url [https://controller.example:8443/ws]"})
        EXPECT_TRUE(was_logged(line)) << line;
}

TEST_F(discover_test, a_silent_cloud)
{
    EXPECT_EQ(-1, discover_orv());
    EXPECT_EQ(questions{CLOUD_QUESTION}, asked);
    EXPECT_EQ(0, da.discovery_method);
    EXPECT_TRUE(idle_in_slow_mode()) << idle_timeout;
    EXPECT_TRUE(was_logged("Discovery of Orvanta Failed "));
}

TEST_F(discover_test, a_cloud_without_cookie)
{
    answers = {{0, CONTROLLER, ""}};
    EXPECT_EQ(-1, discover_orv());
    EXPECT_TRUE(was_logged("Not able to find deviceId Cookie, Try Discovering again"));
}

TEST_F(discover_test, static_url)
{
    write_file(STATIC_URL_FILE, "host.example:8443\n");
    write_file(DHCP_43_FILE, "other.example");
    answers = {GOOD};
    EXPECT_EQ(0, discover_orv());
    EXPECT_EQ(questions{"0 host.example:8443 host.example:8443"}, asked);
    EXPECT_STREQ("host.example", g_orv_router);
    EXPECT_TRUE(was_logged("discover_orv: method 0 orv_url [host.example:8443]"));
    EXPECT_TRUE(was_logged("Discovered method is 0 orv_url [https://controller.example:8443/ws]"));
}

TEST_F(discover_test, the_command_lines_url)
{
    write_file(STATIC_URL_FILE, "file.example");
    copy_text(static_orv_url, "https://typed.example");
    answers = {GOOD};
    EXPECT_EQ(0, discover_orv());
    EXPECT_EQ(questions{"0 typed.example:443 https://typed.example"}, asked);
}

TEST_F(discover_test, a_failed_static_url_ends_the_pass)
{
    write_file(STATIC_URL_FILE, "host.example");
    write_file(DHCP_43_FILE, "other.example");
    write_file(DHCP_15_FILE, "example.net");
    EXPECT_EQ(-1, discover_orv());
    EXPECT_EQ(1u, asked.size());
    EXPECT_EQ(0, da.discovery_method);
}

TEST_F(discover_test, a_broken_static_url_ends_the_pass)
{
    write_file(STATIC_URL_FILE, "host example");
    write_file(DHCP_43_FILE, "other.example");
    write_file(DHCP_15_FILE, "example.net");
    EXPECT_EQ(-1, discover_orv());
    EXPECT_TRUE(asked.empty());
    EXPECT_TRUE(was_logged("Invalid static Orvanta URL [host example] configured"));
    EXPECT_TRUE(idle_in_slow_mode());
}

TEST_F(discover_test, a_static_url_that_names_the_cloud_is_skipped)
{
    for (const char *url :
         {ORVANTA_CLOUD_HOST, "https://" ORVANTA_CLOUD_HOST ":8443", ORVANTA_CLOUD_HOST ".org"}) {
        asked.clear();
        da.discovery_method = 0;
        write_file(STATIC_URL_FILE, url);
        unlink(DHCP_43_FILE);
        answers = {GOOD};
        EXPECT_EQ(0, discover_orv());
        EXPECT_EQ(questions{CLOUD_QUESTION}, asked) << url;

        asked.clear();
        write_file(DHCP_43_FILE, "dhcp.example");
        answers = {GOOD};
        EXPECT_EQ(0, discover_orv());
        EXPECT_EQ(questions{"2 dhcp.example:443 dhcp.example"}, asked) << url;
    }
    asked.clear();
    da.discovery_method = 0;
    write_file(STATIC_URL_FILE, "controller." ORVANTA_CLOUD_HOST);
    discover_orv();
    EXPECT_EQ(questions{"0 controller." ORVANTA_CLOUD_HOST ":443 controller." ORVANTA_CLOUD_HOST}, asked)
        << "only a host that begins with the name";
}

TEST_F(discover_test, dhcp_43)
{
    write_file(DHCP_43_FILE, "https://dhcp.example:8443\n");
    answers = {GOOD};
    EXPECT_EQ(0, discover_orv());
    EXPECT_EQ(questions{"2 dhcp.example:8443 https://dhcp.example:8443"}, asked);
    EXPECT_EQ(2, da.discovery_method);
    EXPECT_STREQ("dhcp.example", g_orv_router);
    EXPECT_TRUE(was_logged("discover_orv: method 2 orv_url [https://dhcp.example:8443]"));
    EXPECT_TRUE(was_logged("Discovered method is 2 orv_url [https://controller.example:8443/ws]"));
}

TEST_F(discover_test, a_failed_dhcp_43_ends_the_pass_and_comes_first_in_the_next)
{
    write_file(DHCP_43_FILE, "dhcp.example");
    write_file(DHCP_15_FILE, "example.net");
    EXPECT_EQ(-1, discover_orv());
    EXPECT_EQ(1u, asked.size());
    EXPECT_EQ(2, da.discovery_method);
    write_file(STATIC_URL_FILE, "host.example");
    EXPECT_EQ(-1, discover_orv());
    EXPECT_EQ("2 dhcp.example:443 dhcp.example", asked.back());
}

TEST_F(discover_test, a_broken_dhcp_43_ends_the_pass)
{
    write_file(DHCP_43_FILE, "dhcp example");
    EXPECT_EQ(-1, discover_orv());
    EXPECT_TRUE(asked.empty());
    EXPECT_TRUE(was_logged("Invalid DHCP43 Orvanta URL [dhcp example]"));
}

TEST_F(discover_test, dhcp_15)
{
    write_file(DHCP_15_FILE, "example.net\n");
    da.dhcp15_allowed = 1;
    answers = {GOOD};
    EXPECT_EQ(0, discover_orv());
    EXPECT_EQ(questions{"1 orvanta.example.net:443 https://orvanta.example.net"}, asked);
    EXPECT_EQ(1, da.discovery_method);
    EXPECT_EQ(1, da.dhcp15_allowed);
    EXPECT_STREQ("orvanta.example.net", g_orv_router);
    EXPECT_TRUE(was_logged("Method 1 Trying to contact [https://orvanta.example.net]"));
}

TEST_F(discover_test, a_failed_dhcp_15_falls_through_to_the_cloud)
{
    write_file(DHCP_15_FILE, "example.net");
    answers = {BAD, GOOD};
    EXPECT_EQ(0, discover_orv());
    EXPECT_EQ((questions{"1 orvanta.example.net:443 https://orvanta.example.net", CLOUD_QUESTION}), asked);
    EXPECT_EQ(0, da.discovery_method);
}

TEST_F(discover_test, a_broken_dhcp_15_falls_through_to_the_cloud)
{
    write_file(DHCP_15_FILE, "example net");
    answers = {GOOD};
    EXPECT_EQ(0, discover_orv());
    EXPECT_EQ(questions{CLOUD_QUESTION}, asked);
    EXPECT_TRUE(was_logged(
        "Invalid DHCP15 Orvanta URL [https://orvanta.example net], falling to next discover method"));
}

TEST_F(discover_test, the_cloud_can_be_left_out_once)
{
    write_file(DHCP_15_FILE, "example.net");
    skip_default_cloud = 1;
    EXPECT_EQ(-1, discover_orv());
    EXPECT_EQ(1u, asked.size());
    EXPECT_EQ(0, skip_default_cloud);
    EXPECT_EQ(1, da.discovery_method) << "the next pass starts at option 15";
    EXPECT_EQ(-1, discover_orv());
    EXPECT_EQ(3u, asked.size());
    EXPECT_EQ(CLOUD_QUESTION, asked.back());
}

/* Where a pass begins, with every source configured. */
TEST_F(discover_test, entry_by_method)
{
    write_file(STATIC_URL_FILE, "static.example");
    write_file(DHCP_43_FILE, "dhcp.example");
    write_file(DHCP_15_FILE, "example.net");
    const struct {
        int32_t method;
        const char *first_question;
    } rows[] = {
        {-1, "0 static.example:443 static.example"}, /* forced: a fresh cycle */
        {0, "0 static.example:443 static.example"},
        {1, "1 orvanta.example.net:443 https://orvanta.example.net"},
        {2, "2 dhcp.example:443 dhcp.example"},
        {4, CLOUD_QUESTION},
    };
    for (const auto &row : rows) {
        asked.clear();
        answers = {GOOD};
        da.discovery_method = row.method;
        EXPECT_EQ(0, discover_orv());
        EXPECT_EQ(questions{row.first_question}, asked) << row.method;
    }
}

TEST_F(discover_test, methods_that_begin_nothing)
{
    for (int32_t method : {3, 5, 99, -2, INT32_MIN}) {
        copy_text(g_orv_router, "before");
        da.discovery_method = method;
        idle_timeout = 5;
        EXPECT_EQ(-1, discover_orv()) << method;
        EXPECT_TRUE(asked.empty());
        EXPECT_EQ(method, da.discovery_method);
        EXPECT_TRUE(idle_in_slow_mode());
        EXPECT_STREQ("", g_orv_router);
    }
}

/* A signal that entered another state during the lookup: what it has set stays, and no further source is
 * asked. */
TEST_F(discover_test, overtaken)
{
    const struct {
        const char *path, *text;
    } rows[] = {
        {STATIC_URL_FILE, "static.example"},
        {DHCP_43_FILE, "dhcp.example"},
        {DHCP_15_FILE, "example.net"},
        {nullptr, nullptr}, /* the cloud */
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.path ? row.path : "cloud");
        SetUp();
        if (row.path)
            write_file(row.path, row.text);
        answers = {{-1, "", "", true}, GOOD};
        EXPECT_EQ(-1, discover_orv());
        EXPECT_EQ(1u, asked.size());
        EXPECT_EQ(DISCOVER_RESTART, da.discovery_method);
        EXPECT_EQ(5, idle_timeout);
        EXPECT_FALSE(was_logged("Discovery of Orvanta Failed "));
    }
}
