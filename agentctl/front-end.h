/*
 * The agent's socket for front ends: one connection at a time, one JSON message a packet.
 */
#pragma once

#include <signal.h>

#include "agent/owners.h"

/* Types of messages, those that this side knows. */
enum {
    FRONT_END_RUN = 109,
    FRONT_END_STOP = 110,
    FRONT_END_SCAN = 111,
    FRONT_END_OUTPUT = 409,
    FRONT_END_STOPPED = 410,
    FRONT_END_SCANNED = 411,
    FRONT_END_SCAN_FAILED = 711,
};

/*
 * Connects, and warns of what that displaces: another front end's connection and, where `commands` is true,
 * a command of the agent's that runs. The caller closes the descriptor; -1 when the agent is not there, which
 * has then been told. `was_running` gets whether a command runs.
 */
int connect_front_end(bool commands, bool *was_running);

/* Sends one message and frees it. Returns 0, or -1 with the reason told. */
int send_message(int fd, json_t *message);

enum received_kind {
    RECEIVED_MESSAGE,
    RECEIVED_NOTHING, /* the time is over, or a signal came */
    RECEIVED_END,     /* the agent closed the connection */
};

/*
 * Waits at most so many milliseconds (-1: for ever) for a message; signals in `mask` (null: none) are let in
 * meanwhile. What is no JSON object is passed over.
 */
received_kind receive_message(int fd, int milliseconds, const sigset_t *mask, json_ptr *message);

/* The "msgType" of a message, -1 when it has none. */
int message_type(const json_t *message);
