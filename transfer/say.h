/*
 * Lines on standard output. The agent reads them from a pipe, 512 bytes at a time, into its log.
 */
#pragma once

#include <cstddef>
#include <string>

enum { LINE_LIMIT = 400 }; /* bytes of a line, its newline among them */

/*
 * One line, in one write: it appears at once and whole. It is cut to LINE_LIMIT. A reader who has let the
 * pipe fill up loses it: no transfer waits for a reader.
 */
void say(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* A text from outside, fit to be shown and to stand in a message: valid UTF-8 without control characters, cut
 * to `limit` bytes. */
std::string presentable(const std::string &text, size_t limit);
