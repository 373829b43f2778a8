#include "device/scm.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "agent/owners.h"
#include "device/frames.h"
#include "device/scmintf.h"
#include "tests/unit/support.h"

static const char not_available[] = "Configuration daemon not available";
static const char closed[] = "Configuration daemon closed the connection";
static const char invalid[] = "Invalid reply from configuration daemon";

static std::string frame(const std::string &text)
{
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes += static_cast<char>(text.size() >> shift);
    return bytes + text;
}

static int listen_at_socket(int backlog)
{
    (void)unlink(SCM_SOCKET);
    std::filesystem::create_directories("/var/tmp");
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const struct sockaddr_un address = {AF_UNIX, SCM_SOCKET};
    EXPECT_EQ(bind(fd, reinterpret_cast<const struct sockaddr *>(&address), sizeof(address)), 0);
    EXPECT_EQ(listen(fd, backlog), 0);
    return fd;
}

static std::string receive_message(int fd)
{
    char *text = nullptr;
    size_t length = 0;
    if (read_a_msg_within(fd, &text, &length, 10000) != 0)
        return "(none)";
    std::string message(text, length);
    free(text);
    return message;
}

static void send_bytes(int fd, const std::string &bytes)
{
    for (size_t sent = 0; sent < bytes.size();) {
        ssize_t now = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (now <= 0)
            return;
        sent += static_cast<size_t>(now);
    }
}

/* A daemon that takes one message per connection and does with the connection what it is told. */
class daemon_end {
public:
    std::vector<std::string> messages; /* read after stop() */

    explicit daemon_end(std::function<void(int fd)> answer) : fd(listen_at_socket(8))
    {
        worker = std::thread([this, answer] {
            for (int peer; (peer = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC)) >= 0; close(peer)) {
                messages.push_back(receive_message(peer));
                answer(peer);
            }
        });
    }
    explicit daemon_end(const std::string &bytes) : daemon_end([bytes](int peer) { send_bytes(peer, bytes); })
    {
    }
    ~daemon_end() { stop(); }
    void stop(void)
    {
        if (fd < 0)
            return;
        shutdown(fd, SHUT_RDWR);
        worker.join();
        close(fd);
        fd = -1;
        (void)unlink(SCM_SOCKET);
    }

private:
    int fd;
    std::thread worker;
};

static std::vector<std::string> told; /* what the library said of its failures */

class scm_test : public testing::Test {
protected:
    json_ptr config{json_loads("{\"a\": 1}", 0, nullptr)};

    void SetUp() override
    {
        (void)unlink(SCM_SOCKET);
        told.clear();
        scmintf_print = [](const char *, int line, const char *message) {
            EXPECT_GT(line, 0);
            told.push_back(message);
        };
    }
    void TearDown() override { scmintf_print = nullptr; }
};

/* An error text, "(ok)" for none. */
static std::string text_of(char *error)
{
    malloc_text owner(error);
    return error ? error : "(ok)";
}

static std::string outcome_of(const json_ptr &config, int overwrite = 0)
{
    return text_of(scm_process_device_json_config(config.get(), overwrite));
}

static const std::string ok_reply = frame("{\"status\":\"ok\"}");

/* ---- what goes out ---- */

TEST_F(scm_test, a_json_configuration)
{
    daemon_end daemon(ok_reply);
    EXPECT_EQ(outcome_of(config, 0), "(ok)");
    EXPECT_EQ(outcome_of(config, 1), "(ok)");
    EXPECT_EQ(outcome_of(config, 7), "(ok)");
    daemon.stop();
    std::string start = "{\"mType\":\"DEVICE-JSON-CONFIG\",\"overwrite\":";
    EXPECT_EQ(daemon.messages,
              (std::vector<std::string>{start + "0,\"config\":{\"a\":1}}", start + "1,\"config\":{\"a\":1}}",
                                        start + "1,\"config\":{\"a\":1}}"}));
    EXPECT_EQ(config->refcount, 1u) << "the caller's value is only read";
    EXPECT_TRUE(told.empty());
}

TEST_F(scm_test, a_native_configuration)
{
    json_ptr native(json_string("set a\n\"b\" 100%\n"));
    daemon_end daemon(ok_reply);
    EXPECT_EQ(text_of(scm_process_device_native_config(native.get(), 1)), "(ok)");
    daemon.stop();
    EXPECT_EQ(daemon.messages,
              std::vector<std::string>{"{\"mType\":\"DEVICE-NATIVE-CONFIG\",\"overwrite\":1,\"config\":"
                                       "\"set a\\n\\\"b\\\" 100%\\n\"}"});
}

TEST_F(scm_test, without_a_native_part_nothing_is_sent)
{
    EXPECT_EQ(text_of(scm_process_device_native_config(nullptr, 1)), "(ok)") << "though nobody is there";
    daemon_end daemon(ok_reply);
    EXPECT_EQ(text_of(scm_process_device_native_config(nullptr, 0)), "(ok)");
    daemon.stop();
    EXPECT_TRUE(daemon.messages.empty());
}

/* Order, big integers, reals, characters outside ASCII, empty keys, nesting: all as it came in. */
TEST_F(scm_test, values_and_order_pass_unchanged)
{
    std::string deep(1000, '['), end(1000, ']');
    std::string text = "{\"z\":9223372036854775807,\"a\":-9223372036854775808,\"m\":0.1,\"\":{\"\":[]},"
                       "\"big\":1.7976931348623157e308,\"tiny\":5e-324,\"third\":0.33333333333333331,"
                       "\"whole\":1.0,\"ß\":\"gr\\u00fc\\u00df \\ud83d\\ude00 \\u0001\\\\\\\"/\","
                       "\"none\":null,\"yes\":true,\"no\":false,\"b\":[3,1,2],\"deep\":" +
                       deep + end + "}";
    json_ptr value(json_loads(text.c_str(), 0, nullptr));
    ASSERT_TRUE(value);
    daemon_end daemon(ok_reply);
    EXPECT_EQ(outcome_of(value), "(ok)");
    daemon.stop();
    ASSERT_EQ(daemon.messages.size(), 1u);
    json_ptr message(json_loads(daemon.messages[0].c_str(), 0, nullptr));
    const json_t *arrived = json_object_get(message.get(), "config");
    EXPECT_EQ(json_equal(arrived, value.get()), 1);
    std::vector<std::string> before, after;
    const char *key;
    json_t *member;
    json_object_foreach(value.get(), key, member) before.push_back(key);
    json_object_foreach(const_cast<json_t *>(arrived), key, member) after.push_back(key);
    EXPECT_EQ(after, before);
    EXPECT_EQ(before.size(), 14u);
}

TEST_F(scm_test, one_value)
{
    daemon_end daemon(ok_reply);
    EXPECT_EQ(scm_process_config_set_item("zapd_start_stop", "true"), 0);
    daemon.stop();
    EXPECT_EQ(daemon.messages,
              std::vector<std::string>{
                  "{\"mType\":\"CONFIG-SET\",\"name\":\"zapd_start_stop\",\"value\":\"true\"}"});
}

TEST_F(scm_test, one_value_that_is_refused)
{
    daemon_end daemon(frame("{\"status\":\"error\",\"error\":\"no such item\"}"));
    EXPECT_EQ(scm_process_config_set_item("a", "b"), -1);
    EXPECT_EQ(told, std::vector<std::string>{"no such item"});
    EXPECT_EQ(scm_process_config_set_item("a", "\xFF"), -1);
    EXPECT_EQ(scm_process_config_set_item("a", nullptr), -1);
    daemon.stop();
    EXPECT_EQ(daemon.messages.size(), 1u) << "what cannot be encoded is not sent";
}

TEST_F(scm_test, a_message_without_payload_and_its_answer)
{
    malloc_text message(scm_build_msg_no_payload("CONFIG-APPLY"));
    EXPECT_STREQ(message.get(), "{\"mType\":\"CONFIG-APPLY\"}");
    daemon_end daemon(frame("whatever it says"));
    malloc_text reply(scm_send_and_recv(message.get()));
    EXPECT_STREQ(reply.get(), "whatever it says");
    daemon.stop();
    EXPECT_EQ(daemon.messages, std::vector<std::string>{"{\"mType\":\"CONFIG-APPLY\"}"});
    EXPECT_EQ(scm_build_msg_no_payload(nullptr), nullptr);
    EXPECT_EQ(scm_send_and_recv(nullptr), nullptr);
    EXPECT_EQ(scm_send_and_recv("nobody there any more"), nullptr);
}

/* ---- what comes back ---- */

struct reply_row {
    const char *reply, *error;
};

TEST_F(scm_test, answers)
{
    static const reply_row rows[] = {
        {"{\"status\":\"ok\"}", "(ok)"},
        {" {\"status\": \"ok\", \"more\": 1}\n", "(ok)"},
        {"{\"status\":\"error\",\"error\":\"radio 3 unknown\"}", "radio 3 unknown"},
        {"{\"error\":\"100%s %n\",\"status\":\"error\"}", "100%s %n"},
        {"{\"status\":\"error\"}", "Configuration daemon reported an error"},
        {"{\"status\":\"error\",\"error\":\"\"}", "Configuration daemon reported an error"},
        {"{\"status\":\"error\",\"error\":17}", "Configuration daemon reported an error"},
        {"{\"status\":\"error\",\"error\":\"\\u0000x\"}", "Configuration daemon reported an error"},
        {"", invalid},
        {"not JSON", invalid},
        {"{\"status\":\"ok\"", invalid},
        {"{\"status\":\"ok\"}}", invalid},
        {"[\"ok\"]", invalid},
        {"\"ok\"", invalid},
        {"{}", invalid},
        {"{\"status\":0}", invalid},
        {"{\"status\":\"OK\"}", invalid},
        {"{\"status\":\"busy\",\"error\":\"later\"}", invalid},
        {"{\"error\":\"no status\"}", invalid},
        {"{\"status\":\"error\",\"error\":\"caf\xE9 closed\"}", "caf? closed"},
        {"{\"status\":\"error\",\"error\":\"gr\xC3\xBC\xC3\x9F \xE2\x82\"}", "gr???? ??"},
        {"{\"status\":\"ok\",\"note\":\"\xFF\"}", "(ok)"},
        {"\xFF\xFE", invalid},
    };
    for (const reply_row &row : rows) {
        EXPECT_EQ(text_of(scm_parse_action_rsp(row.reply)), row.error) << row.reply;
        daemon_end daemon(frame(row.reply));
        EXPECT_EQ(outcome_of(config), row.error) << row.reply;
    }
    EXPECT_EQ(text_of(scm_parse_action_rsp(nullptr)), not_available);
    EXPECT_EQ(std::count(told.begin(), told.end(), invalid), 24) << "twelve kinds, each twice";
}

TEST_F(scm_test, an_error_text_of_a_megabyte_is_cut)
{
    daemon_end daemon(frame("{\"status\":\"error\",\"error\":\"" + std::string(1 << 20, 'e') + "\"}"));
    EXPECT_EQ(outcome_of(config), std::string(SCM_ERROR_LENGTH, 'e'));
}

TEST_F(scm_test, an_error_text_is_cut_between_characters)
{
    for (size_t before : {1020u, 1021u, 1022u, 1023u}) {
        std::string text = std::string(before, 'e') + "\xF0\x9F\x98\x80!";
        std::string reply = "{\"status\":\"error\",\"error\":\"" + text + "\"}";
        EXPECT_EQ(text_of(scm_parse_action_rsp(reply.c_str())), std::string(before, 'e')) << before;
    }
    std::string exact = std::string(1019, 'e') + "\xF0\x9F\x98\x80";
    std::string reply = "{\"status\":\"error\",\"error\":\"" + exact + "\"}";
    EXPECT_EQ(text_of(scm_parse_action_rsp(reply.c_str())), exact);
}

/* ---- daemons that fail ---- */

TEST_F(scm_test, nobody_there)
{
    EXPECT_EQ(outcome_of(config), not_available);
    EXPECT_EQ(told, std::vector<std::string>{"/var/tmp/scmd_server: connect: No such file or directory"});
    close(listen_at_socket(1));
    EXPECT_EQ(outcome_of(config), not_available) << "a socket that a dead daemon left";
    (void)unlink(SCM_SOCKET);
    write_file(SCM_SOCKET, "a plain file");
    EXPECT_EQ(outcome_of(config), not_available);
    EXPECT_EQ(scm_process_config_set_item("a", "b"), -1);
    scmintf_print = nullptr;
    EXPECT_EQ(outcome_of(config), not_available) << "nobody listens to the library either";
}

TEST_F(scm_test, a_daemon_that_dies_on_the_way)
{
    std::string whole = frame("{\"status\":\"ok\"}");
    for (size_t sent : {0u, 1u, 4u, 10u, 18u}) {
        daemon_end daemon(whole.substr(0, sent));
        EXPECT_EQ(outcome_of(config), closed) << sent;
    }
}

/* It closes without reading: writing fails, and would raise SIGPIPE. */
TEST_F(scm_test, a_daemon_that_closes_at_once)
{
    int fd = listen_at_socket(8);
    std::thread closer([fd] {
        for (int peer; (peer = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;)
            close(peer);
    });
    signal(SIGPIPE, SIG_DFL);
    json_ptr large(json_pack("{s:o}", "a", json_string(std::string(3 << 20, 'x').c_str())));
    for (int i = 0; i < 20; i++)
        EXPECT_EQ(outcome_of(large), closed);
    shutdown(fd, SHUT_RDWR);
    closer.join();
    close(fd);
}

TEST_F(scm_test, a_length_that_lies)
{
    {
        daemon_end daemon(std::string("\xFF\xFF\xFF\xFF", 4) + "{\"status\":\"ok\"}");
        EXPECT_EQ(outcome_of(config), invalid) << "4 GiB";
    }
    {
        daemon_end daemon(std::string("\0\0\0\0", 4) + "{\"status\":\"ok\"}");
        EXPECT_EQ(outcome_of(config), invalid) << "nothing";
    }
    {
        daemon_end daemon(std::string("\0\0\0\x05", 4) + "{\"status\":\"ok\"}");
        EXPECT_EQ(outcome_of(config), invalid) << "too short";
    }
    daemon_end daemon(std::string("\0\0\1\0", 4) + "{\"status\":\"ok\"}");
    EXPECT_EQ(outcome_of(config), closed) << "too long";
}

TEST_F(scm_test, a_configuration_beyond_a_frame_is_not_sent)
{
    daemon_end daemon(ok_reply);
    json_ptr large(json_string(std::string(SCMD_MAX_LENGTH, 'x').c_str()));
    EXPECT_EQ(outcome_of(large), "Configuration too large for the configuration daemon");
    json_ptr fits(json_string(std::string(SCMD_MAX_LENGTH - 100, 'x').c_str()));
    EXPECT_EQ(outcome_of(fits), "(ok)");
    EXPECT_EQ(text_of(scm_process_device_json_config(nullptr, 0)), "Configuration could not be encoded");
    daemon.stop();
    EXPECT_EQ(daemon.messages.size(), 1u);
}

static size_t open_descriptors(void)
{
    auto folder = std::filesystem::directory_iterator("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(folder), end(folder)));
}

TEST_F(scm_test, no_descriptor_is_left_open)
{
    size_t before = open_descriptors();
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(outcome_of(config), not_available);
        for (const std::string &bytes :
             {ok_reply, std::string("\xFF\xFF\xFF\xFF"), std::string("{"), frame("?")}) {
            daemon_end daemon(bytes);
            (void)outcome_of(config);
        }
    }
    EXPECT_EQ(open_descriptors(), before);
}

/* ---- daemons that take their time ---- */

/* What a call returned, and after how many milliseconds. */
struct outcome {
    std::string name, error;
    int64_t took = 0;
};

static void time_call(outcome *result, const json_t *value)
{
    auto start = std::chrono::steady_clock::now();
    result->error = text_of(scm_process_device_json_config(value, 0));
    result->took =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start)
            .count();
}

/* Sends so much of the answer at once and then a byte a second, until the caller leaves. */
static void trickle(int peer, const std::string &bytes, size_t at_once)
{
    send_bytes(peer, bytes.substr(0, at_once));
    char sign;
    for (size_t i = at_once; i < bytes.size(); i++) {
        struct timeval second = {1, 0};
        setsockopt(peer, SOL_SOCKET, SO_RCVTIMEO, &second, sizeof(second));
        if (recv(peer, &sign, 1, 0) == 0 || send(peer, &bytes[i], 1, MSG_NOSIGNAL) != 1)
            return;
    }
}

/*
 * Five ways not to answer, one for each connection. The five calls run at once, under a hail of signals; none
 * may take longer than its ten seconds, nor give up before.
 */
TEST_F(scm_test, whatever_stalls_the_call_ends_after_ten_seconds)
{
    scmintf_print = nullptr; /* several threads speak */
    struct sigaction interrupt = {};
    interrupt.sa_handler = [](int) {};
    sigaction(SIGUSR2, &interrupt, nullptr); /* without SA_RESTART */

    json_ptr large(json_string(std::string(3 << 20, 'x').c_str()));
    std::string answer = frame(std::string(40, ' ') + "{\"status\":\"ok\"}");
    std::vector<outcome> results(5);
    std::vector<std::thread> callers, peers;
    int fd = listen_at_socket(0);
    static const char *const names[] = {"silent", "a byte a second", "half an answer", "not reading",
                                        "not accepting"};
    std::vector<int> accepted;
    for (size_t i = 0; i < 4; i++) {
        results[i].name = names[i];
        callers.emplace_back(time_call, &results[i], i == 3 ? large.get() : config.get());
        accepted.push_back(accept4(fd, nullptr, nullptr, SOCK_CLOEXEC));
        if (i == 1 || i == 2)
            peers.emplace_back([&answer, i, peer = accepted.back()] {
                (void)receive_message(peer);
                trickle(peer, answer, i == 1 ? 0 : 20);
            });
    }
    /* One connection waits to be accepted and nobody does: the queue is full. */
    int waiting = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const struct sockaddr_un address = {AF_UNIX, SCM_SOCKET};
    ASSERT_EQ(connect(waiting, reinterpret_cast<const struct sockaddr *>(&address), sizeof(address)), 0);
    results[4].name = names[4];
    callers.emplace_back(time_call, &results[4], config.get());

    std::atomic<bool> done{false};
    std::thread hail([&] {
        while (!done) {
            for (std::thread &caller : callers)
                pthread_kill(caller.native_handle(), SIGUSR2);
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    });
    /* The hail ends before the calls do: a thread that has ended takes no signal. */
    std::this_thread::sleep_for(std::chrono::milliseconds(9000));
    done = true;
    hail.join();
    for (std::thread &caller : callers)
        caller.join();
    for (const outcome &result : results) {
        EXPECT_EQ(result.error, not_available) << result.name;
        EXPECT_GE(result.took, 9990) << result.name;
        EXPECT_LE(result.took, 12000) << result.name;
    }
    for (int peer : accepted)
        shutdown(peer, SHUT_RDWR);
    for (std::thread &peer : peers)
        peer.join();
    for (int peer : accepted)
        close(peer);
    close(waiting);
    close(fd);
}
