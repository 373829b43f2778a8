/*
 * What the tests of the onboarding client share: trusted certificates, a fixture, one exchange with a test's
 * server, and a clock for the waits, in which a test can see each wait begin and let its time run out at
 * once. Included by one source of a program, because it stands in for pselect and clock_gettime.
 */
#pragma once

#include <atomic>
#include <chrono>
#include <cstring>

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <unistd.h>

#include "agent/build-constants.h"
#include "agent/da.h"
#include "agent/signal-mask.h"
#include "agent/text.h"
#include "discovery/discover-orv.h"
#include "discovery/https-client.h"
#include "discovery/onboarding-request.h"
#include "discovery/tcp-connect.h"
#include "discovery/tls-session.h"
#include "platform/connection-status.h"
#include "platform/state-files.h"
#include "tests/unit/certificates.h"
#include "tests/unit/support.h"
#include "tests/unit/tls-server.h"

using namespace std::string_literals;

/* ---- the clock of the waits ---- */

inline std::atomic<int> response_waits; /* waits for header or body that have begun */
inline std::atomic<bool> silence; /* every wait for header or body is over at once, unless bytes are there */
inline std::atomic<bool> dead_network; /* so is every other wait */
inline std::vector<long> wait_seconds; /* what was asked for, rounded up */
inline std::atomic<long> drip_seconds; /* other read waits take so long and end "ready" */
inline std::atomic<long> clock_ahead;  /* seconds */

int clock_gettime(clockid_t which, struct timespec *out) noexcept
{
    static auto real =
        reinterpret_cast<int (*)(clockid_t, struct timespec *)>(dlsym(RTLD_NEXT, "clock_gettime"));
    int result = real(which, out);
    out->tv_sec += which == CLOCK_MONOTONIC ? clock_ahead.load() : 0;
    return result;
}

inline bool is_response_wait(const fd_set *readable, long seconds)
{
    return readable && seconds <= ORV_RESPONSE_WAIT_SECONDS;
}

int pselect(int count, fd_set *readable, fd_set *writable, fd_set *exceptions, const struct timespec *limit,
            const sigset_t *mask)
{
    static auto real = reinterpret_cast<decltype(&pselect)>(dlsym(RTLD_NEXT, "pselect"));
    long seconds = limit->tv_sec + (limit->tv_nsec > 0 ? 1 : 0);
    wait_seconds.push_back(seconds);
    struct timespec none = {};
    if (is_response_wait(readable, seconds)) {
        response_waits++;
        return real(count, readable, writable, exceptions, silence ? &none : limit, mask);
    }
    if (readable && drip_seconds > 0) {
        clock_ahead += drip_seconds;
        return 1;
    }
    return real(count, readable, writable, exceptions, dead_network ? &none : limit, mask);
}

/* In a server's script: until the client waits for header or body the n-th time. False when it never does. */
inline bool await_response_wait(int n)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (response_waits < n && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    return response_waits >= n;
}

/* ---- the fixture ---- */

inline const char HOST[] = "router.example";
inline const char CLOUD_URL[] = "https://" ORVANTA_CLOUD_HOST;

/* The trusted root and the certificates under it; made once. */
inline const identity &trusted_root(void)
{
    static identity root = [] {
        identity made = make_root("Test Root");
        trust_certificate(made);
        return made;
    }();
    return root;
}

inline certificate_wish good_wish(void)
{
    certificate_wish wish;
    wish.dns_names = {HOST};
    wish.issuer = &trusted_root();
    return wish;
}

inline const identity &good_identity(void)
{
    static identity made = make_identity(good_wish());
    return made;
}

struct exchange {
    int result;
    std::string location;
    std::string cookie;
};

inline exchange ask(int port, const char *host = HOST)
{
    char response[ORV_RESPONSE_SIZE] = "";
    const char *location = nullptr;
    const char *cookie = nullptr;
    int32_t location_length = 0;
    int32_t cookie_length = 0;
    exchange done = {-2, "", ""};
    done.result =
        get_from_orvrouter(host, port, response, &location, &location_length, &cookie, &cookie_length);
    done.location.assign(location ? location : "", static_cast<size_t>(location_length));
    done.cookie.assign(cookie ? cookie : "", static_cast<size_t>(cookie_length));
    EXPECT_EQ(0ul, ERR_peek_error()) << "the websocket library would find our errors";
    return done;
}

class onboarding_client_test : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        signals_block();
        write_file("/etc/hosts", "127.0.0.1 localhost\n127.0.0.1 "s + HOST + " " + ORVANTA_CLOUD_HOST + "\n");
        write_file("/etc/resolv.conf", "nameserver 127.0.0.1\n"); /* where nobody keeps a lookup waiting */
        trusted_root();
        https_client_init();
    }

    void SetUp() override
    {
        fresh_agent();
        connection_status_reset();
        onboarding_request_reset();
        for (const char *path : {VELMORA_ID_FILE, DEVICE_ID_COOKIE_FILE, ORV_STATE_FILE, ALLOW_ALL_FILE,
                                 STATIC_URL_FILE, DHCP_43_FILE, DHCP_15_FILE})
            unlink(path);
        copy_text(da.dev_info.eth_mac_addr, "02:4F:56:00:00:01");
        copy_text(da.dev_info.serial_number, "SN-77");
        copy_text(da.orv_url, CLOUD_URL); /* certificates are checked */
        response_waits = 0;
        silence = false;
        dead_network = false;
        drip_seconds = 0;
        wait_seconds.clear();
    }
};

inline std::string with_body(const std::string &head, const std::string &body)
{
    return head + "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

inline const std::string REDIRECT_HEAD = "HTTP/1.1 302 Found\r\nLocation: https://c.example:8443/ws\r\n"
                                         "Set-Cookie: deviceId=id-1; Path=/\r\n";
inline const std::string REDIRECT = with_body(REDIRECT_HEAD, "{}");

inline tls_script sending(const std::string &text)
{
    return [text](tls_peer &peer) { tls_send(peer, text); };
}
