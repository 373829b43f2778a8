/*
 * The command "nslookup", which the agent carries out itself.
 */
#pragma once

/*
 * Resolves a host and gives its IPv4 addresses as the command's output, one piece each; the failure of the
 * resolver in its words, with the end. exec_running is 0 afterwards. Returns 0, or -1 when there is no such
 * host. Blocks as hostname_to_ip does (agent/utils.h).
 */
int do_nslookup(const char *host);
