/*
 * Requests of the device's web front end, at the socket FRONT_END_SOCKET (sequenced packets, one request
 * each): start (109) and stop (110) a troubleshooting command, scan the radio neighbourhood (111). The output
 * goes back over the same connection.
 *
 * A command that is refused closes the connection without a word, and what runs is ended with it; so is a
 * scan, after its failure.
 */
#pragma once

#include <cstdint>

enum { FRONT_END_REQUEST_LENGTH = 1024 }; /* bytes that are read of a request */

/* Opens the socket and listens. Returns 0, or -1 with a log line: the agent does without a front end. */
int platform_fcgi_server_init(void);

/* Callback of the listening socket: takes one connection, in place of an older one. */
void fcgi_accept_cb(int32_t fd, int32_t event, void *arg);

/* Callback of the connection: one request. */
void fcgi_recv_cb(int32_t fd, int32_t event, void *arg);

/* Closes the connection; with the flag a running command is ended first. */
void fcgi_close_client(bool abort_command);
