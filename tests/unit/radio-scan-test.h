/*
 * What the tests of the radio scan share: the whole agent core, a device whose variant the test sets, and a
 * Wi-Fi daemon in the test's own thread, which the test moves by hand.
 */
#pragma once

#include <filesystem>
#include <string>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "agent/local-socket.h"
#include "operations/radio-scan.h"
#include "platform/front-end.h"
#include "protocol/dispatcher.h"
#include "protocol/scan-failure.h"
#include "tests/unit/connection-test.h"
#include "tests/unit/fake-device.h"
#include "tests/unit/local-end.h"
#include "tests/unit/queued.h"
#include "tests/unit/scan-bytes.h"

/* The daemon at its socket. */
struct fake_daemon {
    int listener = -1, peer = -1;

    void listen_at(int backlog = 4)
    {
        std::filesystem::remove(SCAN_SOCKET);
        listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        struct sockaddr_un address;
        ASSERT_EQ(local_address(SCAN_SOCKET, &address), 0);
        ASSERT_EQ(bind(listener, reinterpret_cast<struct sockaddr *>(&address), sizeof(address)), 0);
        ASSERT_EQ(listen(listener, backlog), 0);
    }

    /* The request of the newest connection: "(nobody)" when there is none. */
    std::string request(void)
    {
        hang_up();
        peer = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        char bytes[64];
        ssize_t length = peer < 0 ? -1 : recv(peer, bytes, sizeof(bytes), 0);
        return length < 0 ? "(nobody)" : std::string(bytes, static_cast<size_t>(length));
    }

    void say(const std::string &bytes) const
    {
        ASSERT_EQ(send(peer, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }

    bool was_left(void) const
    {
        char byte;
        ssize_t length = recv(peer, &byte, 1, MSG_DONTWAIT);
        return length == 0 || (length < 0 && errno != EAGAIN);
    }

    void hang_up(void)
    {
        if (peer >= 0)
            close(peer);
        peer = -1;
    }

    void end(void)
    {
        hang_up();
        if (listener >= 0)
            close(listener);
        listener = -1;
        std::filesystem::remove(SCAN_SOCKET);
    }
};

/* The message that tells a failure. */
inline std::string failure(const std::string &text, const char *code = "BadRequest")
{
    return std::string("{\"msgType\": 711, \"code\": \"") + code + "\", \"message\": \"" + text + "\"}";
}

/* Starts with a device that can scan 5GHz, a daemon that listens, and a connected controller. */
class radio_scan : public connection_test {
protected:
    fake_daemon daemon;

    void SetUp() override
    {
        connection_test::SetUp();
        device = fake_device();
        device.sku = 0;
        da.state = DA_STATE_CONNECTED;
        orv_radio_scan = 1;
        daemon.listen_at();
        clear_log();
    }
    void TearDown() override
    {
        radio_scan_reset();
        daemon.end();
        front_end_drop();
        close_watched();
        std::filesystem::remove_all(FRONT_END_SOCKET);
        da.state = DA_STATE_IDLE;
        connection_test::TearDown();
    }

    /* A scan that the daemon has taken. */
    void begin(const char *band = "5GHz")
    {
        ASSERT_EQ(ask(band), 0);
        ASSERT_EQ(daemon.request(), std::string(12, '\0'));
        ASSERT_EQ(scan_in_progress, 1);
        ASSERT_EQ(txq, nullptr);
    }

    /* The controller's request, as the session hands it over. Returns the handler's status. */
    static int ask(const std::string &band)
    {
        return handle("{\"msgType\": 111, \"band\": \"" + band + "\"}");
    }

    static int handle(const std::string &text)
    {
        std::string buffer = text + '}';
        return handle_orv_msg(buffer.data(), text.size(), nullptr);
    }

    /* The daemon says this, the agent has one pass. */
    void reply(const std::string &bytes)
    {
        daemon.say(bytes);
        ev_main();
    }

    void expect_over(void)
    {
        EXPECT_EQ(scan_in_progress, 0);
        EXPECT_TRUE(daemon.was_left());
        EXPECT_EQ(ev_count_timers(), 0);
        EXPECT_EQ(ev_count_fds(), 0);
    }
};
