/*
 * The transmit queue: the only way to the controller. A message is cut into websocket frames of at most 4096
 * bytes; one frame leaves for each writable notification of the library, so the agent never blocks on the
 * socket. A budget protects the device's memory when the controller is slow.
 */
#pragma once

#include <cstddef>
#include <cstdint>

enum {
    TXQ_FRAME_SIZE = 4096,     /* payload bytes of a frame */
    TXQ_MEM_BUDGET = 0x100000, /* queued payload bytes from which on messages are dropped */
    TXQ_DEPTH_WARNING = 6,     /* queued frames from which on the depth is logged */
};

/* One queued frame. */
struct txq_msg {
    char *msg;           /* len + 1 bytes, NUL behind the payload, owned */
    uint32_t len;        /* 1..4096 */
    uint32_t write_mode; /* the library's LWS_WRITE_... value, LWS_WRITE_NO_FIN when more frames of the
                            message follow */
    txq_msg *next;
};

extern txq_msg *txq;         /* the oldest frame */
extern int32_t txq_mem_size; /* queued payload bytes */
extern int32_t txq_depth;    /* queued frames */
extern int32_t in_writable;  /* the library's writable callback is being served */

/*
 * Queues a copy of the text. Returns 0 when it was queued, also when it was dropped because the budget is
 * used up; -1 when not connected (pings are queued in any state) or out of memory. A message that begins
 * below the budget is queued whole.
 */
int write_to_orv(const char *text, size_t length, int is_ping);

/* Sends the oldest frame; called in the writable callback. A frame that cannot be written stays at the head.
 */
void service_txq(void);

/*
 * Puts what is queued on the wire now, as far as the socket takes it without waiting: for whoever is about to
 * hold the loop up for long. What arrives meanwhile is dealt with after the caller has returned to the loop.
 * Does nothing inside the library.
 */
void flush_txq(void);

/* Writes one frame. Returns 0 when all of it was taken, else -1. Without a connection the agent is
 * disconnected. */
int send_msg(const txq_msg *element);

/* Forgets everything that is queued. */
void purge_txq(void);
