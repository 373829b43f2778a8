/*
 * The controller reads the stored configuration back (107, answered with 407): one text, in which each line
 * break of the file is the two characters backslash and "n".
 */
#pragma once

#include <cstddef>

#include "agent/owners.h"

/*
 * A larger configuration is refused like a failed allocation, so that a file gone wild costs no memory: for a
 * moment a pull takes three times the file's size, eight times where it is nothing but line feeds.
 */
enum { PULL_CONFIG_LIMIT = 16 * 1024 * 1024 }; /* bytes of the file */

/*
 * Handler of the dispatcher. Returns what write_to_orv returns; -1 when the configuration cannot be opened;
 * INTERNAL_ERROR with the message set when memory is short, or the file changed meanwhile. What is not UTF-8,
 * NUL included, is sent as U+FFFD.
 */
int platform_pull_and_send_config(char *message_buffer);

/*
 * Writes the escaped configuration into a buffer of so many bytes, terminating NUL included: the file's size,
 * one for each line feed, and one. NUL bytes of the file become bytes that no UTF-8 text has. Returns 0, or
 * -1 when it cannot be opened, read or held.
 */
int escape_config(char *out_buffer, size_t size);

/* The escaped copy of one line, up to and including its line feed; null, with a log line, without memory. */
malloc_text escape_chunk(const char *line);
