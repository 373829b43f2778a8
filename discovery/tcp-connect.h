/*
 * The TCP connection of the onboarding exchange.
 */
#pragma once

#include <cstdint>

enum { TCP_CONNECT_SECONDS = 15 };

/*
 * Resolves the host and connects to it over IPv4. Returns a non-blocking, close-on-exec descriptor that
 * select can hold, the caller closes it; or -1 with a log line. Publishes "Resolving URL" when the name has
 * no address, else "Connecting". Blocks for the resolver's time and TCP_CONNECT_SECONDS.
 */
int tcp_connect(const char *host, int32_t port);
