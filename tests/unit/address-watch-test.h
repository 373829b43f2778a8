/*
 * What the tests of the watcher of the controller's address share.
 */
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "platform/address-watch.h"
#include "platform/controller-sources.h"
#include "tests/unit/connection-test.h"

inline std::vector<std::string> moves; /* the reasons with which the agent was told to leave */

inline const char *const path_of[] = {STATIC_URL_FILE, DHCP_43_FILE, DHCP_15_FILE};

/* A discovery pass that finds its controller at the given source, or at the cloud. */
enum { AT_STATIC_URL = 1, AT_DHCP_43, AT_DHCP_15, AT_CLOUD };

inline void discover(int found_at)
{
    char url[URL_TEXT_SIZE];
    (void)platform_get_static_url(url);
    if (found_at >= AT_DHCP_43)
        (void)platform_get_dhcp43_url(url);
    if (found_at >= AT_DHCP_15)
        (void)platform_get_dhcp15_url(url);
}

class address_watch : public connection_test {
protected:
    void SetUp() override
    {
        connection_test::SetUp();
        std::filesystem::create_directories("/mnt/flash/config");
        for (const char *path : path_of)
            std::filesystem::remove_all(path);
        moves.clear();
        hooks.address_changed = [](const char *reason, size_t length) { moves.emplace_back(reason, length); };
    }
    void TearDown() override
    {
        address_watch_reset();
        connection_test::TearDown();
    }

    /* Watches, with a controller that was found there. */
    static void watch(int found_at = AT_CLOUD)
    {
        platform_watch_controller_address();
        discover(found_at);
        run_seconds(5);
        clear_log();
    }
};

inline bool moved(void) { return !moves.empty(); }

/* How long it takes until the agent moves; -1 when it does not within so many seconds. */
inline int seconds_to_move(int64_t limit = 20)
{
    int64_t start = fake_clock_now();
    return run_until(moved, limit) ? static_cast<int>((fake_clock_now() - start) / 1000000) : -1;
}

inline const char *const once[] = {"DEV_CFG_UPDATE"};
#define EXPECT_ONE_MOVE() EXPECT_EQ(moves, std::vector<std::string>(std::begin(once), std::end(once)))
