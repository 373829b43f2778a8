/*
 * Small scanners for the few things that the onboarding client wants from an HTTP/1.1 response. Each looks
 * only at the given range, writes nothing into it and returns 0 (found) or -1; results point into the same
 * buffer.
 *
 * They share two rules that differ from a usual header parser and that are kept:
 * - A byte matches a pattern character c when it is c or c - 0x20. Lower-case patterns so match in either
 * case, the upper-case "HTTP/1.1" does not, and punctuation and digits have a second form each (':' and
 * 0x1A).
 * - After a mismatch inside a name the search goes on behind the mismatching byte, not behind the name's
 * first letter.
 */
#pragma once

#include <cstdint>

/*
 * The first byte after the blank line (CR LF CR LF). The carriage return that begins it lies in the range;
 * the three bytes after that may lie behind it, so the buffer ends in a NUL there (which no blank line
 * contains).
 */
int find_end_of_header(const char *buffer, int32_t length, const char **end);

/* Is this the status line of a 302? It must begin at the very first byte; what follows the number is not
 * looked at. */
int find_HTTP_302_code(const char *buffer, int32_t length);

/* The value of Location, up to a blank, a carriage return or the end of the range. */
int find_http_location_header(const char *buffer, int32_t length, const char **value, int32_t *value_length);

/*
 * The value of the cookie "deviceId" where it is the first of a Set-Cookie header, up to ';', a blank or a
 * carriage return; one of them must be there.
 */
int find_deviceid_cookie(const char *buffer, int32_t length, const char **value, int32_t *value_length);

/*
 * The Content-Length. When the range ends inside the value the result is 0 and the caller's number stays as
 * it was.
 */
int find_content_length(const char *buffer, int32_t length, int32_t *number);
