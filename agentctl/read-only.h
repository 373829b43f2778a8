/*
 * The agent's parts do their work here, and leave no trace: this program brings its own definitions of what
 * they write with (the log, state files, the connection status, the heartbeat). They come before those of the
 * agent's library, so the code that writes is not even in the program. What the parts would have logged and
 * published is kept, for it tells why something failed.
 */
#pragma once

#include <string>

/* Forgets what was told so far. */
void forget_told(void);

/* The first line told at the failure level since then, without its newlines; empty when there was none. */
std::string first_failure(void);

/* True when such a failure line was told; `found` gets the whole of it. */
bool failure_with(const char *part, std::string *found);

/* The message with which the onboarding service refused the device ("Access Denied"), else empty. */
std::string access_denied_message(void);
