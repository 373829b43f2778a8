/*
 * The configuration daemon's end of its socket, for tests of the calls of device/scm.h.
 */
#pragma once

#include <cstdlib>
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
#include "device/scm.h"
#include "device/scmintf.h"

inline const char not_available[] = "Configuration daemon not available";
inline const char closed[] = "Configuration daemon closed the connection";
inline const char invalid[] = "Invalid reply from configuration daemon";

inline std::string frame(const std::string &text)
{
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes += static_cast<char>(text.size() >> shift);
    return bytes + text;
}

inline int listen_at_socket(int backlog)
{
    (void)unlink(SCM_SOCKET);
    std::filesystem::create_directories("/var/tmp");
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const struct sockaddr_un address = {AF_UNIX, SCM_SOCKET};
    EXPECT_EQ(bind(fd, reinterpret_cast<const struct sockaddr *>(&address), sizeof(address)), 0);
    EXPECT_EQ(listen(fd, backlog), 0);
    return fd;
}

inline std::string receive_message(int fd)
{
    char *text = nullptr;
    size_t length = 0;
    if (read_a_msg_within(fd, &text, &length, 10000) != 0)
        return "(none)";
    std::string message(text, length);
    free(text);
    return message;
}

inline void send_bytes(int fd, const std::string &bytes)
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

inline std::vector<std::string> told; /* what the library said of its failures */

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
inline std::string text_of(char *error)
{
    malloc_text owner(error);
    return error ? error : "(ok)";
}

inline std::string outcome_of(const json_ptr &config, int overwrite = 0)
{
    return text_of(scm_process_device_json_config(config.get(), overwrite));
}

inline const std::string ok_reply = frame("{\"status\":\"ok\"}");
