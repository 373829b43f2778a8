/*
 * What is told to the agent at the end: one datagram to its event socket.
 */
#pragma once

#include <cstdint>
#include <string>

#include "transfer/outcome.h"

enum { REPORT_LIMIT = 2048 }; /* bytes that the agent takes of a datagram */

/* The report of a download, by which the agent knows it: begins with {"msgType":401 or {"msgType":701. */
std::string download_report(const transfer_outcome &outcome);

/* The event of an upload of the file `name`, for the controller: begins with {"msgType":699. `now` is in
 * seconds since the epoch. */
std::string upload_event(const transfer_outcome &outcome, const std::string &name, int64_t now);

/*
 * Sends it, once. Where the agent is not there (it may be starting again) or its socket is full, it tries
 * again for half a minute; for two seconds after a signal. Returns 0, or -1 with errno when nobody took it.
 */
int send_report(const char *socket_path, const std::string &text);
