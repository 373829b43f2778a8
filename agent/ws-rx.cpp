#include "agent/ws-rx.h"

#include <new>
#include <utility>

#include "agent/debug-log.h"

#define MODULE "device-agent.c"

static bool rx_assembling;
static std::string rx_buffer;
static size_t payload_len; /* bytes known to be coming: of the first frame, more when further frames follow */

void ws_rx_reset(void)
{
    rx_assembling = false;
    payload_len = 0;
    std::string().swap(rx_buffer);
}

/* Makes room for what the frame claims; a claim alone costs no memory, pages come with the bytes. */
static bool make_room(size_t needed)
{
    bool had = false;
    if (needed <= RX_MESSAGE_LIMIT) {
        try {
            rx_buffer.reserve(needed + 1);
            had = true;
        } catch (const std::bad_alloc &) {
        }
    }
    if (!had)
        LOG(LOG_FAILURE, "Not able  to allocate memory for payload , return error");
    return had;
}

rx_result ws_rx_piece(const char *in, size_t len, size_t remaining, bool final, std::string *message)
{
    bool complete = remaining == 0 && final;
    if (!rx_assembling && complete) {
        message->assign(in, len);
        return RX_COMPLETE;
    }
    /* No sum here overflows: a piece is at most a few KiB, and the claim is checked alone first. */
    size_t needed = remaining > RX_MESSAGE_LIMIT ? remaining : rx_buffer.size() + len + remaining;
    if (!rx_assembling) {
        payload_len = needed;
        LOG(LOG_TRACE, "Total payload len is greater than 4k allocate memory , payload len is %d",
            static_cast<int>(payload_len));
    }
    if (needed > payload_len)
        payload_len = needed;
    if (!make_room(needed)) {
        ws_rx_reset();
        return RX_FAILED;
    }
    rx_assembling = true;
    if (complete)
        LOG(LOG_TRACE, "len is %d, payload_offset = %d,  payload_len = %d", static_cast<int>(len),
            static_cast<int>(rx_buffer.size()), static_cast<int>(payload_len));
    rx_buffer.append(in, len);
    if (!complete)
        return RX_MORE;
    *message = std::move(rx_buffer);
    ws_rx_reset();
    return RX_COMPLETE;
}
