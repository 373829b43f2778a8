/*
 * Connecting to the agent's local sockets.
 */
#pragma once

#include "agent/owners.h"

/*
 * A socket of this type (SOCK_DGRAM, SOCK_SEQPACKET) connected to the path: non-blocking, close-on-exec, the
 * caller closes it. -1 when there is nobody, which has then been told.
 */
int connect_local(const char *path, int type);

/* How many connections to a listening socket of this path are open now, by /proc/net/unix. */
int open_connections(const char *path);

/* The same from the text of that file. */
int connections_in(const char *table, const char *path);
