#include "protocol/command-output.h"

#include <cstring>
#include <string>

#include "tests/unit/connection-test.h"
#include "tests/unit/fake-calloc.h"
#include "tests/unit/queued.h"

static std::vector<std::string> packets; /* what the front end got */

static int keep_packet(const char *text, size_t length)
{
    packets.emplace_back(text, length);
    return 0;
}

class command_output : public connection_test {
protected:
    void SetUp() override
    {
        connection_test::SetUp();
        command_output_reset();
        packets.clear();
        da.state = DA_STATE_CONNECTED;
        ts_mode = TS_FOR_CONTROLLER;
    }
    void TearDown() override
    {
        callocs_left = -1;
        command_output_reset();
        da.state = DA_STATE_IDLE;
        connection_test::TearDown();
    }

    static void begin(void)
    {
        exec_running = 1;
        EXPECT_EQ(send_exec_cmd_output("", "Initiated"), 0);
        (void)take_queued();
    }

    static void gather(const std::string &text)
    {
        EXPECT_EQ(send_exec_cmd_output(text.c_str(), "InProgress"), 0);
        EXPECT_EQ(txq, nullptr) << "nothing is sent now";
    }

    static bool timer_runs(void)
    {
        for (int i = 0; i < ev_count_timers(); i++)
            if (strcmp(static_cast<const char *>(ev_timer_argument(i)), "SEND TS DATA") == 0)
                return true;
        return false;
    }

    /* The timer fires. */
    static std::vector<std::string> second(void)
    {
        EXPECT_TRUE(timer_runs());
        ev_reset(); /* a timer that fires is gone */
        send_ts_data_cb(nullptr);
        return take_queued();
    }

    static std::string in_progress(const std::string &output)
    {
        return "{\"msgType\": 409, \"status\": \"InProgress\", \"output\": \"" + output + "\"}";
    }
};

static const char complete[] = "{\"msgType\": 409, \"status\": \"Complete\", \"output\": \"\"}";

using messages = std::vector<std::string>;

TEST_F(command_output, the_beginning_is_sent_at_once)
{
    snprintf(ts_data, sizeof(ts_data), "left over");
    EXPECT_EQ(send_exec_cmd_output("", "Initiated"), 0);
    EXPECT_EQ(take_one_queued(), "{\"msgType\": 409, \"status\": \"Initiated\", \"output\": \"\"}");
    EXPECT_STREQ(ts_data, "");
    EXPECT_EQ(ev_count_timers(), 1);
    EXPECT_EQ(send_exec_cmd_output("text", "Initiated"), 0);
    EXPECT_EQ(take_one_queued(), "{\"msgType\": 409, \"status\": \"Initiated\", \"output\": \"text\"}");
    EXPECT_EQ(ev_count_timers(), 1) << "armed anew, not twice";
}

TEST_F(command_output, output_is_gathered_for_a_second)
{
    begin();
    gather("one\n");
    gather("two\n");
    EXPECT_EQ(seconds_until([] { return txq != nullptr; }), 1);
    EXPECT_EQ(take_queued(), messages{in_progress("one\\ntwo\\n")});
    EXPECT_NE(file_text(AGENT_LOG_FILE).find(":send_ts_data_cb: sending g_tsData\n\n"), std::string::npos);
    EXPECT_STREQ(ts_data, "");
    EXPECT_TRUE(timer_runs());
}

TEST_F(command_output, a_silent_second_sends_nothing_while_the_command_runs)
{
    begin();
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(second(), messages{});
    gather("late");
    EXPECT_EQ(second(), messages{in_progress("late")});
}

TEST_F(command_output, the_end_is_reported_when_nothing_is_left)
{
    begin();
    gather("last words");
    exec_running = 0;
    EXPECT_EQ(send_exec_cmd_output("", "Complete"), 0);
    EXPECT_EQ(txq, nullptr) << "the timer reports it";
    EXPECT_EQ(second(), messages{in_progress("last words")});
    EXPECT_EQ(second(), messages{complete});
    EXPECT_TRUE(was_logged("send_ts_data_cb: sending Complete"));
    EXPECT_FALSE(timer_runs());
}

TEST_F(command_output, an_end_with_a_text_is_sent_at_once)
{
    EXPECT_EQ(send_exec_cmd_output("Name or service not known", "Complete"), 0);
    EXPECT_EQ(take_one_queued(),
              "{\"msgType\": 409, \"status\": \"Complete\", \"output\": \"Name or service not known\"}");
    EXPECT_FALSE(timer_runs());
}

TEST_F(command_output, any_other_status_goes_without_the_text)
{
    for (const char *status : {"Error", "inprogress", "", "Failed"}) {
        EXPECT_EQ(send_exec_cmd_output("text", status), 0);
        EXPECT_EQ(take_one_queued(), "{\"msgType\": 409, \"status\": \"" + std::string(status) + "\"}");
    }
}

TEST_F(command_output, a_piece_that_does_not_fit_is_dropped_whole)
{
    begin();
    gather(std::string(8000, 'a'));
    gather(std::string(192, 'b')); /* 8192 with it: no room for the end mark */
    EXPECT_EQ(strlen(ts_data), 8000u);
    gather(std::string(191, 'c'));
    EXPECT_EQ(strlen(ts_data), 8191u);
    gather("d");
    EXPECT_EQ(second(), messages{in_progress(std::string(8000, 'a') + std::string(191, 'c'))});
    gather(std::string(8192, 'e'));
    gather(std::string(100000, 'f'));
    EXPECT_STREQ(ts_data, "");
    gather(std::string(8191, 'g'));
    EXPECT_EQ(second(), messages{in_progress(std::string(8191, 'g'))});
}

TEST_F(command_output, what_was_not_accepted_is_offered_again)
{
    begin();
    gather("text");
    callocs_left = 0;
    EXPECT_EQ(second(), messages{});
    callocs_left = -1;
    EXPECT_TRUE(was_logged("send_ts_data_cb: write_to_orv failed"));
    EXPECT_EQ(seconds_until([] { return txq != nullptr; }), 1) << "the same a second later";
    EXPECT_EQ(take_queued(), messages{in_progress("text")});
}

TEST_F(command_output, a_lost_connection_ends_it)
{
    begin();
    gather("text");
    da.state = DA_STATE_DISCONNECTED;
    EXPECT_EQ(second(), messages{});
    EXPECT_TRUE(was_logged("send_ts_data_cb: Device disconnected, trash the ts data"));
    EXPECT_STREQ(ts_data, "");
    EXPECT_FALSE(timer_runs());
}

TEST_F(command_output, without_a_connection_the_beginning_fails)
{
    da.state = DA_STATE_IDLE;
    EXPECT_EQ(send_exec_cmd_output("", "Initiated"), -1);
    EXPECT_TRUE(was_logged("Failed to send troubleshooting data to Orvanta"));
}

TEST_F(command_output, bytes_that_are_no_text_arrive_as_one)
{
    begin();
    gather("a\xFF\"\\\x01%s\n");
    EXPECT_EQ(second(), messages{in_progress("a\uFFFD\\\"\\\\\\u0001%s\\n")});
}

TEST_F(command_output, a_character_that_was_cut_in_two_arrives_whole)
{
    begin();
    gather("10 \xE2\x82");
    EXPECT_EQ(second(), messages{in_progress("10 ")});
    gather("\xAC");
    EXPECT_EQ(second(), messages{in_progress("\u20ac")});
    gather("\xE2\x82");
    EXPECT_EQ(second(), messages{in_progress("\uFFFD\uFFFD")}) << "nothing else to send: not kept for ever";
    gather("x\xE2");
    exec_running = 0;
    EXPECT_EQ(second(), messages{in_progress("x\uFFFD")}) << "nothing more will come";
    EXPECT_EQ(second(), messages{complete});
}

static int streamed_lines;

TEST_F(command_output, its_own_lines_are_not_streamed)
{
    streamed_lines = 0;
    hooks.append_logs = [](const char *) { streamed_lines++; };
    begin();
    gather("text");
    (void)second();
    exec_running = 0;
    send_ts_data_cb(nullptr);
    (void)take_queued();
    ASSERT_TRUE(was_logged("send_ts_data_cb: sending Complete"));
    int purges = times_logged_beginning("PURGE-Q");
    EXPECT_EQ(streamed_lines, purges) << "only what the test itself made";
}

/* ---- the front end ---- */

TEST_F(command_output, the_front_end_gets_every_piece_at_once)
{
    ts_mode = TS_FOR_FRONT_END;
    da.state = DA_STATE_IDLE;
    hooks.write_to_fcgi = keep_packet;
    EXPECT_EQ(send_exec_cmd_output("", "Initiated"), 0);
    EXPECT_EQ(send_exec_cmd_output("out\xFFput", "InProgress"), 0);
    EXPECT_EQ(send_exec_cmd_output("no", "Error"), 0);
    EXPECT_EQ(send_exec_cmd_output("", "Complete"), 0);
    EXPECT_EQ(packets,
              (messages{"{\"msgType\": 409, \"status\": \"Initiated\", \"output\": \"\"}",
                        "{\"msgType\": 409, \"status\": \"InProgress\", \"output\": \"out\uFFFDput\"}",
                        "{\"msgType\": 409, \"status\": \"Error\", \"output\": \"no\"}", complete}));
    EXPECT_FALSE(timer_runs());
    EXPECT_EQ(txq, nullptr);
}

TEST_F(command_output, without_a_front_end_it_goes_nowhere)
{
    ts_mode = TS_FOR_FRONT_END;
    hooks.write_to_fcgi = nullptr;
    EXPECT_EQ(send_exec_cmd_output("x", "InProgress"), 0);
    EXPECT_EQ(txq, nullptr);
}
