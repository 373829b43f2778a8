#include "stats/stats-digest.h"

#include <chrono>
#include <csignal>
#include <fstream>
#include <string>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

#include "tests/unit/stats-daemon-test.h"

/* Large answers, which a child digests. */
class stats_digest_test : public stats_daemon_test {};

static std::string answer_of(size_t size, const char *end = "\"}")
{
    std::string head = "{\"periodic\": 241, \"index\": 0, \"stats_result\": \"";
    return head + std::string(size - head.size() - strlen(end), 'x') + end;
}

/* Sends it as fast as the agent takes it. */
static void send_in_pieces(const std::string &text)
{
    std::string bytes = frame_header(static_cast<unsigned>(text.size())) + text;
    for (size_t at = 0; at < bytes.size(); at += 100000) {
        daemon_send(bytes.substr(at, 100000));
        serve();
    }
}

/* A child takes its time: the clock must not jump to the end of its limit. */
struct real_clock {
    real_clock() { fake_clock_is_real = true; }
    ~real_clock() { fake_clock_is_real = false; }
};

/* Serves by the real clock until the condition holds, at most for 20 s. */
static void serve_until(bool (*condition)(void))
{
    using clock = std::chrono::steady_clock;
    for (auto begin = clock::now(); !condition() && clock::now() - begin < std::chrono::seconds(20);)
        serve();
    EXPECT_TRUE(condition());
}

static bool read_well(void) { return was_logged("Stats read successfully cleanup g_scm_fd"); }

static int children(void)
{
    siginfo_t info = {};
    return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0 ? 1 : 0;
}

TEST_F(stats_digest_test, an_answer_of_four_megabytes_is_reported_whole)
{
    real_clock clock;
    EXPECT_EQ(ask("{}", STATS_CUSTOM), 0);
    EXPECT_NE(daemon_request(), "");
    std::string text = answer_of(SCMD_MAX_LENGTH);
    send_in_pieces(text);
    EXPECT_TRUE(digest_under_way());
    serve_until(read_well);
    EXPECT_TRUE(was_logged("send_stats_to_orv: CUSTOM_INFO ready, periodic 241"));
    std::string stats = text.substr(text.find("xxx") - 1, std::string::npos);
    EXPECT_EQ(report(),
              "{\"msgType\": 424, \"subType\": 241, \"sessId\": 42, \"ts\": 0, \"stats\": " + stats);
    EXPECT_TRUE(daemon_was_left());
    EXPECT_EQ(children(), 0) << "reaped";
    EXPECT_EQ(ev_count_fds() + ev_count_timers(), 0);
}

TEST_F(stats_digest_test, a_large_answer_that_is_no_json_leaves_the_connection_open)
{
    real_clock clock;
    EXPECT_EQ(ask("{}"), 0);
    EXPECT_NE(daemon_request(), "");
    send_in_pieces(answer_of(DIGEST_IN_PLACE + 1, "\"]"));
    serve_until([] { return was_logged("Failed to load json"); });
    EXPECT_EQ(txq, nullptr);
    EXPECT_FALSE(daemon_was_left());
    daemon_answer("{\"periodic\": 0, \"index\": 0, \"stats_result\": 1}");
    serve_until([] { return txq != nullptr; });
    EXPECT_EQ(report(), "{\"msgType\": 404, \"sessId\": 42, \"ts\": 0, \"stats\": 1}");
}

TEST_F(stats_digest_test, short_answers_need_no_child)
{
    EXPECT_EQ(ask("{}"), 0);
    EXPECT_NE(daemon_request(), "");
    daemon_answer(answer_of(DIGEST_IN_PLACE));
    serve();
    EXPECT_FALSE(digest_under_way());
    EXPECT_TRUE(read_well());
}

TEST_F(stats_digest_test, an_answer_behind_a_large_one_waits_for_its_own_connection)
{
    real_clock clock;
    EXPECT_EQ(ask("{}", STATS_CUSTOM), 0);
    EXPECT_NE(daemon_request(), "");
    send_in_pieces(answer_of(DIGEST_IN_PLACE + 1));
    EXPECT_TRUE(digest_under_way());
    EXPECT_EQ(platform_build_and_send_stats(0, 0), 0);
    EXPECT_EQ(daemon_connections(), 2) << "the first one has had its answer";
    EXPECT_NE(daemon_request(), "");
    daemon_answer("{\"periodic\": 0, \"index\": 0, \"stats_result\": 1}");
    serve_until([] { return txq_depth > 16 && !digest_under_way(); });
    EXPECT_FALSE(daemon_was_left()) << "the large answer does not close the connection of another";
    std::vector<std::string> messages = take_queued();
    ASSERT_EQ(messages.size(), 1u);
    serve_until([] { return txq != nullptr; });
    EXPECT_EQ(report(), "{\"msgType\": 404, \"sessId\": 42, \"ts\": 0, \"stats\": 1}");
    EXPECT_TRUE(daemon_was_left());
}

/* The one child that this process has. */
static pid_t only_child(void)
{
    std::ifstream list("/proc/self/task/" + std::to_string(getpid()) + "/children");
    pid_t child = 0;
    list >> child;
    return child;
}

TEST_F(stats_digest_test, a_child_that_dies_costs_the_report)
{
    real_clock clock;
    EXPECT_EQ(ask("{}"), 0);
    EXPECT_NE(daemon_request(), "");
    send_in_pieces(answer_of(SCMD_MAX_LENGTH));
    ASSERT_GT(only_child(), 0);
    EXPECT_EQ(kill(only_child(), SIGKILL), 0);
    serve_until([] { return was_logged("json dump failed , send_stats_to_orv "); });
    EXPECT_EQ(txq, nullptr);
    EXPECT_TRUE(daemon_was_left());
    EXPECT_FALSE(digest_under_way());
}

/* The state letter of a process: R, S, T, ... */
static char state_of(pid_t process)
{
    std::ifstream file("/proc/" + std::to_string(process) + "/stat");
    std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    size_t end = text.rfind(')');
    return end == std::string::npos ? '?' : text[end + 2];
}

TEST_F(stats_digest_test, a_report_that_ends_in_its_middle_is_none)
{
    real_clock clock;
    EXPECT_EQ(ask("{}"), 0);
    EXPECT_NE(daemon_request(), "");
    send_in_pieces(answer_of(SCMD_MAX_LENGTH));
    pid_t child = only_child();
    ASSERT_GT(child, 0);
    auto begin = std::chrono::steady_clock::now();
    while (state_of(child) != 'S' && std::chrono::steady_clock::now() - begin < std::chrono::seconds(20))
        usleep(1000);
    ASSERT_EQ(state_of(child), 'S') << "the pipe is full, and nobody reads";
    EXPECT_EQ(kill(child, SIGKILL), 0);
    serve_until([] { return was_logged("json dump failed , send_stats_to_orv "); });
    EXPECT_EQ(txq, nullptr);
}

TEST_F(stats_digest_test, a_refused_connection_is_not_watched_when_the_digest_is_done)
{
    real_clock clock;
    EXPECT_EQ(ask("{}"), 0);
    EXPECT_NE(daemon_request(), "");
    send_in_pieces(answer_of(DIGEST_IN_PLACE + 1));
    daemon_die();
    EXPECT_EQ(platform_build_and_send_stats(0, 0), -1) << "closes the dead connection";
    EXPECT_EQ(platform_build_and_send_stats(0, 0), -1) << "is refused";
    serve_until([] { return !digest_under_way(); });
    EXPECT_EQ(take_queued().size(), 1u);
    EXPECT_EQ(ev_count_fds(), 0);
}

TEST_F(stats_digest_test, a_child_that_takes_too_long_is_killed)
{
    EXPECT_EQ(ask("{}"), 0);
    EXPECT_NE(daemon_request(), "");
    send_in_pieces(answer_of(SCMD_MAX_LENGTH));
    pid_t child = only_child();
    ASSERT_GT(child, 0);
    EXPECT_EQ(kill(child, SIGSTOP), 0);
    fake_clock_advance(DIGEST_LIMIT + 2, 0);
    for (int i = 0; i < 40 && digest_under_way(); i++) /* what it had written before comes first */
        serve();
    EXPECT_FALSE(digest_under_way());
    EXPECT_EQ(kill(child, 0), -1) << "gone and reaped";
    EXPECT_EQ(txq, nullptr);
}
