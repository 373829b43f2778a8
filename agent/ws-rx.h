/*
 * Reassembly of received websocket messages: the library hands a message over in pieces of at most 4096
 * bytes, and the controller may spread one over several frames.
 */
#pragma once

#include <cstddef>
#include <string>

/* A message larger than this is refused like a failed allocation. */
enum { RX_MESSAGE_LIMIT = 16 * 1024 * 1024 };

enum rx_result {
    RX_FAILED = -1, /* no memory: the connection is to be dropped */
    RX_MORE = 0,    /* the message goes on */
    RX_COMPLETE = 1,
};

/*
 * Takes one piece. `remaining` is what the library says is still to come of this frame, `final` that the
 * frame is the message's last. A complete message is moved to `message`.
 */
rx_result ws_rx_piece(const char *in, size_t len, size_t remaining, bool final, std::string *message);

/* Forgets a half received message. */
void ws_rx_reset(void);
