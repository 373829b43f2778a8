#include "operations/front-end-requests.h"

#include <filesystem>
#include <string>
#include <vector>

#include <sys/stat.h>

#include "platform/front-end.h"
#include "protocol/error-codes.h"
#include "protocol/scan-failure.h"
#include "tests/unit/connection-test.h"
#include "tests/unit/local-end.h"
#include "tests/unit/queued.h"

/* ---- jobs that record ---- */

static std::vector<std::string> calls;
static int answer; /* of each job */

static std::string text_of(const json_t *request)
{
    if (!request)
        return "none";
    malloc_text text(json_dumps(request, 0));
    return text.get();
}

static int refuse(char *error_text)
{
    if (answer != NO_ERROR)
        set_error_text(error_text, "refused");
    return answer;
}

class front_end : public connection_test {
protected:
    void SetUp() override
    {
        connection_test::SetUp();
        calls.clear();
        answer = NO_ERROR;
        orv_radio_scan = 1;
        hooks.parse_exec_cmd = [](const json_t *request, char *error_text) {
            calls.push_back("parse " + text_of(request));
            return refuse(error_text);
        };
        hooks.start_exec_cmd = [](const json_t *request, int32_t mode, char **name) {
            calls.push_back("start " + text_of(request) + (mode == 0 && !name ? " local" : " ?"));
            return 0;
        };
        hooks.abort_exec_cmd = [](const json_t *request, char **name) {
            calls.push_back("abort " + text_of(request) + (name ? " ?" : ""));
            (void)write_to_fcgi("ended", 5);
            return 0;
        };
        hooks.parse_radio_scan_request = [](const json_t *request, char *error_text, int32_t mode) {
            calls.push_back("scan " + text_of(request) + " " + std::to_string(mode));
            return refuse(error_text);
        };
        ASSERT_EQ(platform_fcgi_server_init(), 0);
        clear_log();
    }
    void TearDown() override
    {
        front_end_drop();
        close_watched();
        free_place(FRONT_END_SOCKET);
        connection_test::TearDown();
    }

    /* Another front end, accepted. */
    struct client : local_end {
        client() : local_end(SOCK_SEQPACKET, FRONT_END_SOCKET) { ev_main(); }

        /* Sends one request and lets it be dealt with. */
        void ask(const std::string &request) const
        {
            clear_log();
            ASSERT_TRUE(say(request));
            ev_main();
        }
    };
};

using log_lines = std::vector<std::string>;

/* ---- the socket ---- */

TEST_F(front_end, the_socket_takes_packets_from_root_and_its_group)
{
    struct stat status = {};
    EXPECT_EQ(stat("/var/tmp/agent_cgiserver", &status), 0);
    EXPECT_EQ(status.st_mode, S_IFSOCK | 0660u);
    EXPECT_EQ(local_end(SOCK_STREAM, FRONT_END_SOCKET).fd, -1);
    EXPECT_EQ(errno, EPROTOTYPE);
    EXPECT_EQ(fcgi_client_fd, -1);
}

TEST_F(front_end, an_old_socket_makes_room)
{
    close_watched();
    EXPECT_EQ(platform_fcgi_server_init(), 0);
    client page;
    EXPECT_GE(fcgi_client_fd, 0);
}

TEST_F(front_end, a_path_that_cannot_be_bound_is_not_fatal)
{
    close_watched();
    block_place(FRONT_END_SOCKET);
    EXPECT_EQ(platform_fcgi_server_init(), -1);
    EXPECT_TRUE(was_logged("Bind failed with error (98:Address already in use)\n") ||
                was_logged("Bind failed with error (98:Address already in use)"));
    EXPECT_EQ(ev_count_fds(), 0);
}

TEST_F(front_end, an_accept_that_fails_is_logged)
{
    client page;
    int before = fcgi_client_fd;
    fcgi_accept_cb(page.fd, EV_READ, nullptr);
    EXPECT_TRUE(was_logged("Failed accept4"));
    EXPECT_EQ(fcgi_client_fd, before);
}

/* ---- commands ---- */

TEST_F(front_end, a_command_is_started_and_the_connection_stays)
{
    client page;
    page.ask("{\"msgType\": 109, \"command\": \"ping\"}");
    EXPECT_EQ(calls, (log_lines{"parse {\"msgType\": 109, \"command\": \"ping\"}",
                                "start {\"msgType\": 109, \"command\": \"ping\"} local"}));
    EXPECT_TRUE(was_logged("Got fcgi request " + std::to_string(fcgi_client_fd)));
    EXPECT_TRUE(was_logged("fcgi_recv_cb: MSG_EXEC_CMD received"));
    EXPECT_EQ(page.hear(), "(nothing)");
    EXPECT_EQ(write_to_fcgi("output", 3), 0);
    EXPECT_EQ(page.hear(), "out");
}

TEST_F(front_end, a_command_that_is_refused_ends_the_running_one_and_the_connection)
{
    answer = BAD_REQUEST;
    client page;
    page.ask("{\"msgType\": 109}");
    EXPECT_EQ(calls, (log_lines{"parse {\"msgType\": 109}", "abort none"}));
    EXPECT_EQ(page.hear(), "ended") << "what the ended command still has to say";
    EXPECT_EQ(page.hear(), "(closed)") << "and no failure text";
    EXPECT_EQ(fcgi_client_fd, -1);
}

TEST_F(front_end, a_stop_reaches_the_command_and_the_connection_stays)
{
    client page;
    page.ask("{\"msgType\": 110, \"command\": \"ping\"}");
    EXPECT_EQ(calls, log_lines{"abort {\"msgType\": 110, \"command\": \"ping\"}"});
    EXPECT_TRUE(was_logged("fcgi_recv_cb: MSG_EXEC_STOP received"));
    EXPECT_EQ(page.hear(), "ended");
    EXPECT_EQ(page.hear(), "(nothing)");
}

/* ---- scans ---- */

TEST_F(front_end, a_scan_is_asked_for_in_local_mode)
{
    client page;
    page.ask("{\"msgType\": 111, \"band\": \"5GHz\"}");
    EXPECT_EQ(calls, log_lines{"scan {\"msgType\": 111, \"band\": \"5GHz\"} 0"});
    EXPECT_TRUE(was_logged("fcgi_recv_cb: MSG_RADIO_SCAN_REQUEST received"));
    EXPECT_EQ(page.hear(), "(nothing)");
}

TEST_F(front_end, a_scan_that_is_refused_is_answered_and_ends_the_connection)
{
    answer = INVALID_INPUT;
    da.state = DA_STATE_CONNECTED;
    client page;
    page.ask("{\"msgType\": 111, \"band\": \"5ghz\"}");
    EXPECT_EQ(page.hear(), "{\"msgType\": 711, \"code\": \"BadRequest\", \"message\": \"refused\"}");
    EXPECT_EQ(page.hear(), "ended");
    EXPECT_EQ(page.hear(), "(closed)");
    EXPECT_EQ(calls.back(), "abort none");
    EXPECT_TRUE(was_logged("Radio scan failure : refused"));
    EXPECT_EQ(orv_radio_scan, 1);
    EXPECT_EQ(txq, nullptr) << "nothing of it is the controller's";
    da.state = DA_STATE_IDLE;
}

TEST_F(front_end, a_failed_scan_of_the_controller_is_told_to_the_controller)
{
    client page;
    da.state = DA_STATE_CONNECTED;
    send_scan_failure_msg("a \"text\"");
    EXPECT_EQ(take_one_queued(),
              "{\"msgType\": 711, \"code\": \"BadRequest\", \"message\": \"a \\\"text\\\"\"}");
    EXPECT_EQ(page.hear(), "(nothing)");
    da.state = DA_STATE_IDLE;
}

/* ---- what is no request ---- */

TEST_F(front_end, other_types_close_without_touching_a_command)
{
    for (const char *type : {"112", "0", "\"109\"", "109.0", "null", "-1", "400"}) {
        client page;
        page.ask(std::string("{\"msgType\": ") + type + "}");
        EXPECT_TRUE(was_logged("fcgi_recv_cb: UNKNOWN message received")) << type;
        EXPECT_EQ(page.hear(), "(closed)") << type;
        EXPECT_EQ(fcgi_client_fd, -1);
    }
    EXPECT_TRUE(calls.empty());
}

TEST_F(front_end, a_text_that_is_not_json_closes_without_touching_a_command)
{
    static const std::string texts[] = {
        "hello", "{", "\xFF\xFE", std::string("\0{}", 3), "5", "{\"msgType\": 109"};
    for (const std::string &text : texts) {
        client page;
        page.ask(text);
        EXPECT_TRUE(was_logged_beginning("Failed to load json 1 ")) << text;
        EXPECT_EQ(page.hear(), "(closed)") << text;
    }
    client page;
    page.ask("{\n\"a\": }");
    EXPECT_TRUE(was_logged("Failed to load json 2 unexpected token near '}'"));
    EXPECT_TRUE(calls.empty());
}

TEST_F(front_end, without_a_type_the_command_ends_too)
{
    for (const char *text : {"{}", "[]", "{\"command\": \"ping\"}"}) {
        calls.clear();
        client page;
        page.ask(text);
        EXPECT_TRUE(was_logged("Failed to find message type")) << text;
        EXPECT_EQ(calls, log_lines{"abort none"}) << text;
        EXPECT_EQ(page.hear(), "ended") << text;
        EXPECT_EQ(page.hear(), "(closed)") << text;
    }
}

TEST_F(front_end, an_empty_packet_closes_as_the_end_does)
{
    client page;
    int fd = fcgi_client_fd;
    page.ask("");
    EXPECT_EQ(page.hear(), "(closed)");
    EXPECT_EQ(logged(), log_lines{"wifi.c:Got fcgi request " + std::to_string(fd)}) << "that is no complaint";
    EXPECT_TRUE(calls.empty());
}

TEST_F(front_end, a_request_has_at_most_1024_bytes)
{
    const std::string start = "{\"msgType\": 110, \"a\": \"";
    client page;
    page.ask(start + std::string(1024 - start.size() - 2, 'x') + "\"}");
    EXPECT_EQ(calls.size(), 1u);
    EXPECT_EQ(page.hear(), "ended");
    page.ask(start + std::string(1025 - start.size() - 2, 'x') + "\"}");
    EXPECT_TRUE(was_logged_beginning("Failed to load json 1 "));
    EXPECT_EQ(page.hear(), "(closed)");
    EXPECT_EQ(calls.size(), 1u);
}

/* ---- coming and going ---- */

static int open_descriptors(void)
{
    auto entries = std::filesystem::directory_iterator("/proc/self/fd");
    return static_cast<int>(std::distance(entries, std::filesystem::directory_iterator()));
}

TEST_F(front_end, a_newer_connection_takes_the_place_of_the_older)
{
    client old;
    old.ask("{\"msgType\": 109}");
    calls.clear();
    int before = open_descriptors();
    client page;
    EXPECT_EQ(open_descriptors(), before + 1) << "the page's own end; of the agent's one for another";
    EXPECT_EQ(old.hear(), "(closed)");
    EXPECT_TRUE(calls.empty()) << "the command runs on";
    (void)write_to_fcgi("output", 6);
    EXPECT_EQ(page.hear(), "output");
    EXPECT_EQ(ev_count_fds(), 2);
}

TEST_F(front_end, many_connections_leave_no_descriptor)
{
    int before = open_descriptors();
    for (int i = 0; i < 300; i++)
        client page;
    ev_main();
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(ev_count_fds(), 1);
    EXPECT_EQ(fcgi_client_fd, -1);
}

TEST_F(front_end, a_front_end_that_goes_away_leaves_the_command_running)
{
    {
        client page;
        page.ask("{\"msgType\": 109}");
    }
    calls.clear();
    EXPECT_EQ(write_to_fcgi("lost", 4), 0);
    EXPECT_TRUE(was_logged("Failed to send message"));
    ev_main();
    EXPECT_EQ(fcgi_client_fd, -1);
    EXPECT_TRUE(calls.empty());
    EXPECT_EQ(write_to_fcgi("lost", 4), 0);
    EXPECT_TRUE(was_logged("Failed to send as fcgi connectivity lost"));
}

TEST_F(front_end, one_that_does_not_read_neither_blocks_nor_closes)
{
    client page;
    clear_log();
    int sent = 0;
    while (sent < 100000 && !was_logged("Failed to send message"))
        for (int i = 0; i < 50; i++, sent++)
            EXPECT_EQ(write_to_fcgi("text", 4), 0);
    EXPECT_LT(sent, 100000);
    EXPECT_GE(fcgi_client_fd, 0);
    EXPECT_EQ(page.hear(), "text");
}
