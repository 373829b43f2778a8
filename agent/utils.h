/*
 * Small shared utilities: existence of files, name resolution, random numbers, one-line value files.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "agent/owners.h"

/* Capacity of an address text as hostname_to_ip fills it. */
enum { ADDRESS_TEXT_SIZE = 100 };

/*
 * 0 when the file exists or its absence cannot be shown (no permission to look, say); -1 only when it is
 * missing, which is also told on standard error.
 */
int file_exists(const char *path);

/*
 * Resolves a host name to a dotted IPv4 text. Returns 0, or -1 with a log line; the text is then not to be
 * used. Blocks for at most RESOLVER_OPTIONS' attempts times time-out for each name server.
 */
int hostname_to_ip(const char *host, char (&address_text)[ADDRESS_TEXT_SIZE]);

/* What start-up puts into RES_OPTIONS (resolv.conf(5)): a lookup blocks the loop, so it may not take the
 * usual 20 s. */
#define RESOLVER_OPTIONS "timeout:3 attempts:2"

/*
 * A uniformly drawn number in 0..n-1, from the cryptographic source: the delays of a fleet must not fall in
 * step. 0 when n is 0, 1 when the source fails.
 */
uint32_t random_number(uint32_t n);

/*
 * Reads at most `n` bytes of a value file and drops one trailing newline. The buffer holds n + 1 bytes and is
 * always terminated.
 */
void read_file(FILE *stream, char *buffer, size_t n);

/* Opens a file for reading; null when it cannot be, or is no plain file: a pipe would wait for its writer. */
file_ptr open_plain_file(const char *path);

/* In a child, before its program takes over: closes all descriptors but 0, 1 and 2, those too that the agent
 * itself was started with. */
void close_descriptors_for_child(void);

/* Opens and reads a value file as read_file does. Returns -1, with an empty buffer, when it cannot be opened
 * or is no plain file. */
int read_value_file(const char *path, char *buffer, size_t n);
