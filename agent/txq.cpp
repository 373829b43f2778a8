#include "agent/txq.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "agent/da.h"
#include "agent/debug-log.h"
#include "agent/enter-state.h"
#include "agent/ws-link.h"
#include "agent/ws-timers.h"

#define MODULE "device-agent.c"

enum { FLUSH_ROUNDS = 64 }; /* a frame or two each */

txq_msg *txq;
int32_t txq_mem_size;
int32_t txq_depth;
int32_t in_writable;

static txq_msg **tail = &txq; /* where the next frame is linked */

static void append(txq_msg *element)
{
    *tail = element;
    tail = &element->next;
    txq_mem_size += static_cast<int32_t>(element->len);
    txq_depth++;
}

static void remove_head(void)
{
    txq_msg *head = txq;
    txq = head->next;
    if (!txq)
        tail = &txq;
    txq_mem_size -= static_cast<int32_t>(head->len);
    txq_depth--;
    free(head->msg);
    free(head);
}

/* Returns null, with the reason logged, when memory is short. */
static txq_msg *make_frame(const char *payload, uint32_t length)
{
    auto *element = static_cast<txq_msg *>(calloc(1, sizeof(txq_msg)));
    if (!element) {
        LOG(LOG_FAILURE, "%s: Failed to allocate TXQ buffer", "write_to_orv");
        return nullptr;
    }
    element->msg = static_cast<char *>(calloc(1, length + size_t{1}));
    if (!element->msg) {
        LOG(LOG_FAILURE, "%s: Failed to allocate TXQ msg", "write_to_orv");
        free(element);
        return nullptr;
    }
    memcpy(element->msg, payload, length);
    element->len = length;
    return element;
}

static uint32_t write_mode(bool first, bool last, int is_ping)
{
    if (last && is_ping) /* a ping is never more than one piece */
        return LWS_WRITE_PING;
    uint32_t mode = first ? LWS_WRITE_BINARY : LWS_WRITE_CONTINUATION;
    return last ? mode : mode | LWS_WRITE_NO_FIN;
}

int write_to_orv(const char *text, size_t length, int is_ping)
{
    if (da.state != DA_STATE_CONNECTED && !is_ping) {
        LOG(LOG_TRACE, "Not connected to Orvanta, cannot send message");
        return -1;
    }
    if (txq_mem_size >= TXQ_MEM_BUDGET) {
        LOG(LOG_FAILURE, "%s: TXQ full txq_mem_size=%d txq_depth=%d dropping messages", "write_to_orv",
            txq_mem_size, txq_depth);
        return 0;
    }
    for (size_t offset = 0; offset < length;) {
        size_t piece = std::min<size_t>(length - offset, TXQ_FRAME_SIZE);
        txq_msg *element = make_frame(text + offset, static_cast<uint32_t>(piece));
        if (!element)
            return -1;
        bool last = offset + piece == length;
        element->write_mode = write_mode(offset == 0, last, is_ping);
        if (is_ping && last)
            LOG(LOG_TRACE, "PING_DATA: len=%d msg [%s]", static_cast<int>(element->len), element->msg);
        append(element);
        offset += piece;
    }
    if (in_writable != 1)
        ws_request_writable();
    else
        service_txq();
    return 0;
}

void service_txq(void)
{
    if (!txq) {
        in_writable = 0;
        return;
    }
    /* A failure may have entered the disconnected state, which empties the queue: the head is looked at
     * afresh. */
    if (send_msg(txq) == 0)
        remove_head();
    else
        LOG(LOG_FAILURE, "Failed to send msg to Orvanta");
    if (txq_depth >= TXQ_DEPTH_WARNING)
        LOG(LOG_EVENT, "%s: txq_depth %d", "service_txq", txq_depth);
    in_writable = 0;
    ws_request_writable();
}

void flush_txq(void)
{
    for (int rounds = 0; rounds < FLUSH_ROUNDS && txq; rounds++) {
        if (!ws.established || ws.closing || ws.in_library)
            return;
        ws_request_writable();
        ws_serve_library();
        timer_arm(serve_timer, 0); /* what the library reported meanwhile is acted upon there */
    }
}

int send_msg(const txq_msg *element)
{
    if (!ws.wsi) {
        LOG(LOG_FAILURE, "%s: ERROR: wsi is null", "send_msg");
        da_enter_state(DA_STATE_DISCONNECTED);
        return -1;
    }
    /* The library writes its frame header into the room in front of the payload. */
    unsigned char buffer[LWS_PRE + TXQ_FRAME_SIZE];
    memcpy(buffer + LWS_PRE, element->msg, element->len);
    int length = static_cast<int>(element->len);
    int written = lws_write(ws.wsi, buffer + LWS_PRE, element->len,
                            static_cast<enum lws_write_protocol>(element->write_mode));
    if (written < 0) {
        LOG(LOG_FAILURE, "%s: ERROR: Write failed %d/%d", "send_msg", written, length);
        return -1;
    }
    if (written < length) {
        LOG(LOG_FAILURE, "%s: ERROR: Partial write %d/%d", "send_msg", written, length);
        return -1;
    }
    return 0;
}

void purge_txq(void)
{
    LOG(LOG_EVENT, "PURGE-Q: txq_mem_size=%d txq_depth=%d", txq_mem_size, txq_depth);
    while (txq) {
        LOG(LOG_TRACE, "PURGE-Q: head %p txmsg %p, txmsg->msg %p len %d", static_cast<void *>(&txq),
            static_cast<void *>(txq), static_cast<void *>(txq->msg), static_cast<int>(txq->len));
        remove_head();
    }
    in_writable = 0;
}
