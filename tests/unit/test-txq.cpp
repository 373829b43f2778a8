#include "agent/txq.h"

#include <string>
#include <vector>

#include "agent/ws-timers.h"
#include "tests/unit/connection-test.h"
#include "tests/unit/fake-calloc.h"

/* ---- helpers ---- */

class txq_test : public connection_test {
protected:
    void SetUp() override
    {
        connection_test::SetUp();
        connect_agent(false); /* no REGISTER in the queue */
        ASSERT_EQ(txq, nullptr);
        clear_log();
    }
    void TearDown() override
    {
        callocs_left = -1;
        connection_test::TearDown();
    }
};

/* A text whose every byte tells where it stands. */
static std::string text_of(size_t length)
{
    std::string text(length, ' ');
    for (size_t i = 0; i < length; i++)
        text[i] = static_cast<char>('!' + i % 89);
    return text;
}

static int send(const std::string &text) { return write_to_orv(text.c_str(), text.size(), 0); }

struct frame_shape {
    uint32_t mode, length;
};

static std::string shape_text(const std::vector<frame_shape> &shapes)
{
    std::string text;
    for (const frame_shape &shape : shapes)
        text += std::to_string(shape.mode) + "/" + std::to_string(shape.length) + " ";
    return text;
}

static std::vector<frame_shape> queued(void)
{
    std::vector<frame_shape> shapes;
    for (const txq_msg *frame = txq; frame; frame = frame->next)
        shapes.push_back({frame->write_mode, frame->len});
    return shapes;
}

/* ---- framing ---- */

struct framing_row {
    size_t length;
    std::vector<frame_shape> shapes;
};

TEST_F(txq_test, messages_are_cut_into_frames_of_4096_bytes)
{
    static const framing_row rows[] = {
        {1, {{1, 1}}},
        {4095, {{1, 4095}}},
        {4096, {{1, 4096}}},
        {4097, {{0x41, 4096}, {2, 1}}},
        {8192, {{0x41, 4096}, {2, 4096}}},
        {8193, {{0x41, 4096}, {0x42, 4096}, {2, 1}}},
        {9000, {{0x41, 4096}, {0x42, 4096}, {2, 808}}},
    };
    for (const framing_row &row : rows) {
        purge_txq();
        EXPECT_EQ(send(text_of(row.length)), 0);
        EXPECT_EQ(shape_text(queued()), shape_text(row.shapes)) << row.length;
        EXPECT_EQ(txq_mem_size, static_cast<int32_t>(row.length));
        EXPECT_EQ(txq_depth, static_cast<int32_t>(row.shapes.size()));
    }
}

TEST_F(txq_test, the_frames_arrive_in_order_and_whole)
{
    std::string text = text_of(9000);
    send(text);
    send("{\"msgType\": 402}");
    drain();
    ASSERT_EQ(library.wire.size(), 4u);
    EXPECT_EQ(library.wire[0].payload + library.wire[1].payload + library.wire[2].payload, text);
    EXPECT_EQ(library.wire[0].mode, 0x41);
    EXPECT_EQ(library.wire[1].mode, 0x42);
    EXPECT_EQ(library.wire[2].mode, 2);
    EXPECT_EQ(library.wire[3].payload, "{\"msgType\": 402}");
    EXPECT_EQ(library.wire[3].mode, 1);
    EXPECT_EQ(txq_mem_size, 0);
    EXPECT_EQ(txq_depth, 0);
}

TEST_F(txq_test, a_copy_is_queued_and_ends_with_a_nul)
{
    char text[] = "abcdef";
    write_to_orv(text, 3, 0);
    text[0] = 'X';
    ASSERT_NE(txq, nullptr);
    EXPECT_STREQ(txq->msg, "abc");
}

TEST_F(txq_test, an_empty_message_queues_nothing)
{
    EXPECT_EQ(send(""), 0);
    EXPECT_EQ(txq, nullptr);
    EXPECT_EQ(txq_depth, 0);
}

TEST_F(txq_test, one_frame_leaves_for_each_writable_notification)
{
    send("one");
    send("two");
    in_library([] {});
    EXPECT_EQ(fake_wire_text(), "1:one 1:two") << "a pass serves the library twice";
    send("three");
    EXPECT_EQ(txq_depth, 1) << "never straight onto the socket";
    int requests = library.writable_requests;
    send("four");
    EXPECT_EQ(library.writable_requests, requests + 1);
}

TEST_F(txq_test, the_socket_is_watched_for_reading_only_when_the_queue_is_empty)
{
    EXPECT_EQ(ev_watched(ws.websock_fd), static_cast<uint32_t>(EV_READ));
    send("text");
    EXPECT_EQ(ev_watched(ws.websock_fd), static_cast<uint32_t>(EV_READ | EV_WRITE));
    run_seconds(2);
    EXPECT_EQ(fake_wire_text(), "1:text");
    EXPECT_EQ(ev_watched(ws.websock_fd), static_cast<uint32_t>(EV_READ));
    EXPECT_EQ(ev_count_fds(), 1);
    EXPECT_EQ(in_writable, 0) << "an empty queue clears it";
}

/* ---- not connected ---- */

TEST_F(txq_test, a_message_while_not_connected_is_refused)
{
    for (int32_t state : {DA_STATE_IDLE, DA_STATE_DISCOVERY, DA_STATE_CONNECTING, DA_STATE_DISCONNECTED}) {
        clear_log();
        da.state = state;
        EXPECT_EQ(send("text"), -1);
        EXPECT_TRUE(was_logged("Not connected to Orvanta, cannot send message"));
        EXPECT_EQ(txq, nullptr);
    }
    da.state = DA_STATE_CONNECTED;
}

TEST_F(txq_test, a_ping_while_not_connected_is_queued_and_touches_nothing_else)
{
    da_enter_state(DA_STATE_DISCONNECTED);
    clear_log();
    int requests = library.writable_requests;
    int descriptors = ev_count_fds();
    EXPECT_EQ(write_to_orv("ping", 4, 1), 0);
    ASSERT_NE(txq, nullptr);
    EXPECT_EQ(txq->write_mode, 5u);
    EXPECT_TRUE(was_logged("PING_DATA: len=4 msg [ping]"));
    EXPECT_EQ(library.writable_requests, requests);
    EXPECT_EQ(ev_count_fds(), descriptors);
}

TEST_F(txq_test, a_ping_has_mode_5)
{
    EXPECT_EQ(write_to_orv("ping", 4, 1), 0);
    drain();
    EXPECT_EQ(fake_wire_text(), "5:ping");
}

/* ---- the budget ---- */

TEST_F(txq_test, a_full_queue_drops_messages_silently_for_the_caller)
{
    std::string full = text_of(TXQ_MEM_BUDGET);
    EXPECT_EQ(send(full), 0);
    EXPECT_EQ(txq_mem_size, 1048576);
    EXPECT_EQ(txq_depth, 256);
    EXPECT_EQ(send("x"), 0);
    EXPECT_EQ(txq_mem_size, 1048576);
    EXPECT_TRUE(was_logged("write_to_orv: TXQ full txq_mem_size=1048576 txq_depth=256 dropping messages"));
    EXPECT_EQ(write_to_orv("ping", 4, 1), 0);
    EXPECT_EQ(txq_depth, 256) << "pings too";
}

TEST_F(txq_test, a_message_that_begins_below_the_budget_is_queued_whole)
{
    send(text_of(TXQ_MEM_BUDGET - 1));
    EXPECT_EQ(txq_mem_size, 1048575);
    EXPECT_EQ(send(text_of(10000)), 0);
    EXPECT_EQ(txq_mem_size, 1048575 + 10000);
    EXPECT_EQ(txq_depth, 259);
    EXPECT_EQ(times_logged_beginning("write_to_orv: TXQ full"), 0);
}

/* ---- memory ---- */

TEST_F(txq_test, no_memory_for_the_element)
{
    callocs_left = 0;
    int result = send("text");
    callocs_left = -1;
    EXPECT_EQ(result, -1);
    EXPECT_TRUE(was_logged("write_to_orv: Failed to allocate TXQ buffer"));
    EXPECT_EQ(txq_depth, 0);
}

TEST_F(txq_test, no_memory_for_the_payload)
{
    callocs_left = 1;
    int result = send("text");
    callocs_left = -1;
    EXPECT_EQ(result, -1);
    EXPECT_TRUE(was_logged("write_to_orv: Failed to allocate TXQ msg"));
    EXPECT_EQ(txq_depth, 0);
}

TEST_F(txq_test, pieces_that_were_queued_before_memory_ran_out_stay)
{
    callocs_left = 3;
    int result = send(text_of(9000));
    callocs_left = -1;
    EXPECT_EQ(result, -1);
    EXPECT_EQ(shape_text(queued()), shape_text({{0x41, 4096}}));
    EXPECT_EQ(txq_mem_size, 4096);
}

/* ---- writes that fail ---- */

TEST_F(txq_test, a_frame_that_cannot_be_written_stays_at_the_head)
{
    library.takes = -1;
    send("first");
    send("second");
    in_library([] {});
    EXPECT_TRUE(was_logged("send_msg: ERROR: Write failed -1/5"));
    EXPECT_TRUE(was_logged("Failed to send msg to Orvanta"));
    EXPECT_EQ(fake_wire_text(), "");
    ASSERT_EQ(txq_depth, 2);
    EXPECT_STREQ(txq->msg, "first");
    EXPECT_EQ(in_writable, 0);
    library.takes = FAKE_TAKES_ALL;
    drain();
    EXPECT_EQ(fake_wire_text(), "1:first 1:second");
}

TEST_F(txq_test, a_frame_that_was_written_in_part_is_sent_again_whole)
{
    library.takes = 3;
    send("first");
    in_library([] {});
    EXPECT_TRUE(was_logged("send_msg: ERROR: Partial write 3/5"));
    EXPECT_TRUE(was_logged("Failed to send msg to Orvanta"));
    EXPECT_EQ(txq_depth, 1);
    EXPECT_EQ(txq_mem_size, 5);
    library.takes = FAKE_TAKES_ALL;
    drain();
    EXPECT_EQ(fake_wire_text(), "1:first");
}

TEST_F(txq_test, without_a_connection_sending_enters_disconnected)
{
    send("first");
    send("second");
    lws *kept = ws.wsi;
    ws.wsi = nullptr;
    service_txq();
    ws.wsi = kept;
    EXPECT_TRUE(was_logged("send_msg: ERROR: wsi is null"));
    EXPECT_TRUE(was_logged("DA_STATE_DISCONNECTED"));
    EXPECT_TRUE(was_logged("Failed to send msg to Orvanta"));
    EXPECT_EQ(da.state, DA_STATE_IDLE);
    EXPECT_EQ(txq, nullptr);
    EXPECT_EQ(txq_depth, 0);
    EXPECT_EQ(txq_mem_size, 0);
    EXPECT_EQ(in_writable, 0);
}

TEST_F(txq_test, serving_an_empty_queue_does_nothing_but_clear_in_writable)
{
    int requests = library.writable_requests;
    in_writable = 1;
    service_txq();
    EXPECT_EQ(in_writable, 0);
    EXPECT_EQ(library.writable_requests, requests);
    EXPECT_EQ(logged().size(), 0u);
}

/* ---- depth and purge ---- */

TEST_F(txq_test, six_queued_frames_produce_the_depth_log_after_a_send)
{
    for (int i = 0; i < 7; i++)
        send("text");
    drain();
    EXPECT_EQ(times_logged_beginning("service_txq: txq_depth "), 1);
    EXPECT_TRUE(was_logged("service_txq: txq_depth 6"));

    clear_log();
    for (int i = 0; i < 6; i++)
        send("text");
    drain();
    EXPECT_EQ(times_logged_beginning("service_txq: txq_depth "), 0) << "five are left after the first send";
}

/* ---- flushing ---- */

TEST_F(txq_test, a_flush_needs_no_loop)
{
    std::string text = text_of(9000);
    send(text);
    send("text");
    flush_txq();
    ASSERT_EQ(library.wire.size(), 4u);
    EXPECT_EQ(library.wire[3].payload, "text");
    EXPECT_EQ(txq, nullptr);
}

TEST_F(txq_test, what_arrives_during_a_flush_waits_for_the_loop)
{
    static int handled;
    handled = 0;
    hooks.handle_orv_msg = [](char *, size_t, void *) { return ++handled; };
    ASSERT_TRUE(run_until([] { return !serve_timer.handle; }, 5)) << "left over from connecting";
    send("text");
    library.script.push_back([] { fake_receive(fake_handle(), "{\"msgType\": 115}"); });
    flush_txq();
    EXPECT_EQ(library.wire.size(), 1u);
    EXPECT_EQ(handled, 0);
    EXPECT_TRUE(run_until([] { return handled == 1; }, 5));
}

/* Its descriptor is gone then: nothing but a timer brings the loop to what the library has reported. */
TEST_F(txq_test, a_connection_that_ends_during_a_flush_is_missed_at_once)
{
    ASSERT_TRUE(run_until([] { return !serve_timer.handle; }, 5)) << "left over from connecting";
    send("text");
    library.script.push_back([] { fake_closed(fake_handle()); });
    flush_txq();
    EXPECT_EQ(da.state, DA_STATE_CONNECTED) << "the caller's work goes first";
    EXPECT_TRUE(run_until([] { return da.state == DA_STATE_IDLE; }, 5));
}

TEST_F(txq_test, a_flush_does_not_wait_for_a_socket_that_takes_nothing)
{
    library.takes = 0;
    send("text");
    flush_txq();
    EXPECT_EQ(txq_depth, 1);
    library.takes = FAKE_TAKES_ALL;
    drain();
    EXPECT_EQ(library.wire.size(), 1u);
}

TEST_F(txq_test, a_flush_without_a_connection_does_nothing)
{
    da_enter_state(DA_STATE_DISCONNECTED);
    da.state = DA_STATE_CONNECTED; /* a queue without a handle, as a lost connection leaves it for a moment */
    send("text");
    flush_txq();
    EXPECT_EQ(txq_depth, 1);
    da.state = DA_STATE_IDLE;
}

TEST_F(txq_test, a_purge_forgets_everything_and_tells_what)
{
    send(text_of(5000));
    send("text");
    clear_log();
    in_writable = 1;
    const void *first = txq;
    const void *payload = txq->msg;
    char told[200];
    snprintf(told, sizeof(told), "PURGE-Q: head %p txmsg %p, txmsg->msg %p len 4096",
             static_cast<void *>(&txq), first, payload);
    purge_txq();
    EXPECT_TRUE(was_logged("PURGE-Q: txq_mem_size=5004 txq_depth=3"));
    EXPECT_TRUE(was_logged(told));
    EXPECT_EQ(times_logged_beginning("PURGE-Q: head "), 3);
    EXPECT_EQ(txq, nullptr);
    EXPECT_EQ(txq_mem_size, 0);
    EXPECT_EQ(txq_depth, 0);
    EXPECT_EQ(in_writable, 0);
    purge_txq();
    EXPECT_TRUE(was_logged("PURGE-Q: txq_mem_size=0 txq_depth=0"));
}
