/*
 * The device's log for whoever follows it: the last 100 lines, of the agent and of every program that sends
 * its lines to the log server socket, and while the command "log" runs each new one. It all goes out as the
 * command's output (protocol/command-output.h).
 */
#pragma once

#include <cstdint>

#define LOG_SERVER_SOCKET "/var/tmp/agent_logserver"

enum {
    LOG_RING_LINES = 100,
    LOG_SLOT_SIZE = 150,       /* line, line feed and NUL; a line of 149 bytes and more is cut to 149 and has
                                  no line feed, but no character is cut in two */
    LOG_DATAGRAM_LENGTH = 151, /* bytes taken from a datagram */
    LOG_BATCH_LINES = 10,      /* lines of the history in one piece of output */
};

extern int32_t log_streaming; /* 1 while the command "log" runs */

/* Opens the socket for the lines of other programs. Returns 0, or -1 with a log line. */
int log_server_init(void);

/* The socket's read callback: takes one line. */
void log_server_rx_cb(int32_t fd, int32_t event, void *arg);

/* Keeps a line, without its line feed, and streams it. */
void append_logs(const char *line);

/* Begins to stream, with the history, oldest line first; nothing happens while it is streamed already. The
 * caller has set ts_mode and exec_running. */
void start_orv_logging(void);

/* Ends it. Returns 1 if the log was being streamed, else 0; exec_running is the caller's. */
int stop_orv_logging(void);

/* For tests: forgets the lines and closes the socket. */
void log_stream_reset(void);
