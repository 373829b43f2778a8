/*
 * A statistics daemon in the test's own thread: it listens on the real path, and the test moves it by hand.
 */
#pragma once

#include <string>

/* Listens from now on, forgetting an earlier life. */
void daemon_listen(void);

/* Closes everything: the daemon has died. */
void daemon_die(void);

/* Whether a request has arrived. */
bool daemon_was_asked(void);

/* The next request that has arrived, its connection accepted if need be; empty when there is none. */
std::string daemon_request(void);

/* Sends an answer, framed; or bytes as they are. */
void daemon_answer(const std::string &text);
void daemon_send(const std::string &bytes);

/* How many connections were accepted; whether the agent has closed the newest one. */
int daemon_connections(void);
bool daemon_was_left(void);

/* The four bytes that announce a text of this length. */
std::string frame_header(unsigned length);
