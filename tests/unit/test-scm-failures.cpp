/* The calls of device/scm.h with a daemon that is not there, lies, dies or takes its time. */
#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "device/frames.h"
#include "device/scm.h"
#include "device/scmintf.h"
#include "tests/unit/scm-end.h"
#include "tests/unit/support.h"

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
