#include "transfer/session.h"

#include <csignal>

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "transfer/exit-statuses.h"
#include "transfer/retry.h"
#include "transfer/stop.h"

/* A server that takes connections and never says a word. Its URL. */
static std::string silent_server(const fd_guard &listener)
{
    struct sockaddr_in address = {};
    socklen_t length = sizeof(address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto *plain = reinterpret_cast<struct sockaddr *>(&address);
    EXPECT_EQ(bind(listener.fd, plain, length), 0);
    EXPECT_EQ(listen(listener.fd, 5), 0);
    EXPECT_EQ(getsockname(listener.fd, plain, &length), 0);
    return "https://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/";
}

/* The signal, once it has come, stays: all of it is one test. */
TEST(transfer_session, ends_at_its_deadline_or_by_a_signal)
{
    ASSERT_EQ(session_init(), 0);
    ASSERT_EQ(stop_listen(), 0);
    fd_guard listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    std::string url = silent_server(listener);
    char error[CURL_ERROR_SIZE];

    curl_ptr transfer = session_make(url.c_str(), error);
    ASSERT_TRUE(transfer);
    int64_t begun = monotonic_ms();
    EXPECT_EQ(session_run(transfer.get(), begun + 300), CURLE_OPERATION_TIMEDOUT);
    EXPECT_GE(monotonic_ms() - begun, 300);
    EXPECT_LT(monotonic_ms() - begun, CONNECT_SECONDS * 1000 / 2);

    EXPECT_EQ(stop_signal(), 0);
    kill(getpid(), SIGTERM);
    transfer = session_make(url.c_str(), error);
    begun = monotonic_ms();
    EXPECT_EQ(session_run(transfer.get(), begun + 600000), CURLE_ABORTED_BY_CALLBACK);
    EXPECT_LT(monotonic_ms() - begun, CONNECT_SECONDS * 1000 / 2);
    EXPECT_EQ(stop_wait(600000), SIGTERM) << "it stays";
    transfer_outcome outcome;
    end_by_signal(&outcome);
    EXPECT_EQ(outcome.exit_status, TRANSFER_STOPPED + SIGTERM);
    EXPECT_EQ(outcome.reason, "stopped by a signal: Terminated");
    transfer.reset();
    session_exit();
}
