/*
 * The exchange with the statistics daemon: a request goes out, its answer is read by the loop as it comes and
 * sent on as a report. One connection, opened for a request and closed after the first good answer; requests
 * made meanwhile share it, and the answer closes it for all of them.
 *
 * A large answer becomes a report in a child (stats/stats-digest.h); the connection is not read meanwhile.
 * Nothing here waits for the daemon longer than it takes to hand over a request (STATS_WRITE_LIMIT): what it
 * does not take in is given up, with the connection. An answer that has begun has to be complete within
 * STATS_ANSWER_LIMIT. No answer at all is not bounded; a daemon that ends closes the connection.
 */
#pragma once

#include <cstdint>

#define STATS_DAEMON_SOCKET "/var/tmp/scmd_server"

enum {
    STATS_WRITE_LIMIT = 40,  /* milliseconds */
    STATS_ANSWER_LIMIT = 10, /* seconds */
};

/*
 * Asks for a report of what the slot's request names, empty lists when it has none. Returns 0 when the
 * request was handed over, else -1: this report is lost.
 */
int platform_build_and_send_stats(int32_t t_index, int32_t periodic);

/* Closes the connection, for tests. */
void stats_daemon_reset(void);
