/*
 * What the tests of a software upgrade share: a connected agent whose clock jumps, a `fw_dl` that runs until
 * it is ended, an upgrade script that ends as it is told, and an open event socket.
 */
#pragma once

#include <string>

#include "operations/firmware-flash.h"
#include "operations/fw-download.h"
#include "operations/sw-upgrade.h"
#include "operations/upgrade-results.h"
#include "operations/upgrade-state.h"
#include "platform/event-trap.h"
#include "protocol/dispatcher.h"
#include "protocol/error-codes.h"
#include "tests/unit/connection-test.h"
#include "tests/unit/local-sender.h"
#include "tests/unit/stand-in.h"
#include "tests/unit/told.h"

#define SOME_URL "https://files.example/fw.img"
#define SCRIPT "/usr/bin/scripts/upgrade.sh"
#define SCRIPT_STATUS "/run/lab/status/upgrade.sh"
#define INITIATED "{\"msgType\": 401, \"status\": \"Initiated\", \"message\": \"Downloading firmware\"}"
#define ONGOING "{\"msgType\": 401, \"status\": \"OnGoing\", \"message\": \"Upgrade in progress\"}"
#define FLASHING "{\"msgType\": 401, \"status\": \"InProgress\", \"message\": \"Writing firmware to flash\"}"
#define UPDATED                                                                                              \
    "{\"msgType\": 401, \"status\": \"UpdateComplete\", \"message\": \"Update finished, waiting for "        \
    "reboot\"}"
#define REBOOTING "{\"msgType\": 401, \"status\": \"Rebooting\", \"message\": \"Rebooting device\"}"
#define NOT_DOWNLOADED                                                                                       \
    "{\"msgType\": 701, \"code\": \"DownloadFailed\", \"message\": \"SW update file download failed\"}"

class upgrade_test : public connection_test {
protected:
    void SetUp() override
    {
        connection_test::SetUp();
        saved_script = file_text(SCRIPT);
        for (const char *path : {FIRMWARE_FILE, UPGRADE_PROGRESS_FILE, "/tmp/fw_dl.pid"})
            std::filesystem::remove_all(path);
        clear_recorded("upgrade.sh");
        clear_recorded("shutdown.sh");
        write_file(SCRIPT_STATUS, "0");
        install_program(PROGRAMS "fw_dl", "echo $$ >/tmp/fw_dl.new; mv /tmp/fw_dl.new /tmp/fw_dl.pid\n"
                                          "exec sleep 1000");
        std::filesystem::remove(platform_get_event_sock_path());
        ASSERT_EQ(platform_event_listener(), 0);
        connect_agent();
        cancel_registration(); /* it would end the download */
        cancel_ping_timer();   /* nobody answers here */
        error_string[0] = '\0';
        clear_told();
    }
    void TearDown() override
    {
        event_listener_reset();
        connection_test::TearDown();
        install_script(saved_script);
        std::filesystem::remove(SCRIPT_STATUS);
        da.auto_reboot = 0;
    }

    static void clear_told(void)
    {
        purge_txq();
        library.wire.clear();
        clear_log();
    }

    /* The upgrade script, whole. */
    static void install_script(const std::string &text)
    {
        write_file(SCRIPT, text);
        chmod(SCRIPT, 0755);
    }

    /* A message of the controller. Returns the handler's status. */
    static int controller_sends(std::string text)
    {
        return handle_orv_msg(text.data(), text.size(), nullptr);
    }

    /* A download that runs. */
    static void begin_upgrade(void)
    {
        ASSERT_EQ(platform_sw_update(SOME_URL, error_string), 0);
        ASSERT_TRUE(comes_true([] { return number_in("/tmp/fw_dl.pid") > 0; }));
        clear_told();
    }

    /* A program reports to the event socket and the loop takes it. */
    static void report(const char *text)
    {
        ASSERT_EQ(send_datagram_to(platform_get_event_sock_path(), text), 0);
        ev_main();
    }

    /* The whole way up to the script's end; what the controller was told after "Initiated". */
    static texts flash(void)
    {
        begin_upgrade();
        report("{\"msgType\":401}");
        run_seconds(4);
        return take_told();
    }

    std::string saved_script;
};

/* A 701 as the agent writes it. */
inline std::string upgrade_failure(const std::string &code, const std::string &message)
{
    return "{\"msgType\": 701, \"code\": \"" + code + "\", \"message\": \"" + message + "\"}";
}
