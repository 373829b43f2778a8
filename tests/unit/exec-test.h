/*
 * What the tests of troubleshooting commands share: an agent that is connected, and requests as JSON texts.
 */
#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "agent/da.h"
#include "agent/debug-log.h"
#include "agent/ev.h"
#include "agent/hooks.h"
#include "agent/owners.h"
#include "agent/txq.h"
#include "operations/exec-arguments.h"
#include "operations/exec-cmd.h"
#include "operations/log-stream.h"
#include "operations/wifiperf.h"
#include "platform/station-disconnect.h"
#include "protocol/command-output.h"
#include "protocol/error-codes.h"
#include "tests/unit/queued.h"
#include "tests/unit/support.h"

using texts = std::vector<std::string>;

inline texts packets; /* what the front end got */

class exec_test : public testing::Test {
protected:
    void SetUp() override
    {
        fresh_agent();
        forget();
        da.state = DA_STATE_CONNECTED;
        hooks.abort_exec_cmd = abort_exec_cmd;
        hooks.write_to_fcgi = [](const char *text, size_t length) {
            packets.emplace_back(text, length);
            return 0;
        };
    }
    void TearDown() override
    {
        forget();
        (void)take_queued();
        da.state = DA_STATE_IDLE;
        EXPECT_EQ(ev_count_timers(), 0);
        EXPECT_EQ(ev_count_fds(), 0);
    }
    static void forget(void)
    {
        log_stream_reset();
        exec_cmd_reset();
        command_output_reset();
        wifiperf_reset();
        sta_disconnect_cb = nullptr;
        packets.clear();
        error_text[0] = '\0';
    }

    inline static char error_text[ERROR_STRING_SIZE];

    static json_ptr json(const std::string &text)
    {
        json_ptr value(json_loads(text.c_str(), JSON_DECODE_ANY, nullptr));
        EXPECT_TRUE(value) << text;
        return value;
    }
    static int parse(const std::string &request) { return parse_exec_cmd(json(request).get(), error_text); }
    /* Parses a request with these arguments for a command. */
    static void parse_arguments(const std::string &command, const std::string &arguments)
    {
        EXPECT_EQ(parse("{\"command\": \"" + command + "\", \"arguments\": " + arguments + "}"), NO_ERROR);
    }
    /* The vector as it is now, without its name. */
    static texts vector(void)
    {
        const char *entries[EXEC_VECTOR_SIZE];
        build_exec_vector(entries);
        texts found;
        for (int i = 1; entries[i]; i++)
            found.emplace_back(entries[i]);
        return found;
    }
};
