/*
 * What is shown to people. Texts of this device may hold what came from the network or out of the air (SSIDs,
 * status texts, host names): nothing of that may steer a terminal.
 */
#pragma once

#include <cstdint>
#include <string>

#include <jansson.h>

/*
 * The text with everything a terminal would obey replaced by "?": control characters other than newline and
 * tab, DEL, and the C1 controls (also as UTF-8); what is not UTF-8 becomes U+FFFD.
 */
std::string printable(const std::string &text);

/* The same on one line: newlines and tabs become blanks. */
std::string printable_line(const std::string &text);

/* "name:   text", the texts below each other. */
void print_field(const char *name, const std::string &text);

/* One JSON value and a newline on standard output, indented for people. */
void print_json(const json_t *value);

/* "2026-11-21 14:42:51 (3 minutes ago)", or "in 3 minutes"; local time. */
std::string time_text(int64_t when, int64_t now);

/* "5 seconds", "1 minute", "3 hours", "2 days": the largest unit that fits, whole ones. */
std::string duration_text(int64_t seconds);

/* A line "agentctl: ..." on standard error. */
void complain(const char *format, ...) __attribute__((format(printf, 1, 2)));
