#include "discovery/http-header.h"

#include <cstring>

#include "agent/debug-log.h"
#include "agent/text.h"

#define MODULE "http-header"

/* What is still to be looked at. */
struct scan_range {
    const char *at;
    int32_t left;
};

static void step(scan_range &range)
{
    range.at++;
    range.left--;
}

static bool byte_matches(char byte, char pattern) { return byte == pattern || byte == pattern - 0x20; }

/* Eats blanks. False when the range ends with them. */
static bool skip_blanks(scan_range &range)
{
    while (range.left > 0 && *range.at == ' ')
        step(range);
    return range.left > 0;
}

/* Eats the pattern. On a mismatch the mismatching byte is eaten too, and the search goes on after it. */
static bool eat_pattern(scan_range &range, const char *pattern)
{
    for (; *pattern; pattern++) {
        if (range.left <= 0)
            return false;
        bool matches = byte_matches(*range.at, *pattern);
        step(range);
        if (!matches)
            return false;
    }
    return true;
}

/* Moves behind the next occurrence of the pattern. False when there is none. */
static bool find_pattern(scan_range &range, const char *pattern)
{
    while (range.left > 0)
        if (eat_pattern(range, pattern))
            return true;
    return false;
}

/* Moves to the next byte of the set. False when the range ends before. */
static bool find_any_of(scan_range &range, const char *set, size_t set_length)
{
    while (range.left > 0 && !memchr(set, *range.at, set_length))
        step(range);
    return range.left > 0;
}

/* ---- the scanners ---- */

int find_end_of_header(const char *buffer, int32_t length, const char **end)
{
    for (scan_range range = {buffer, length}; range.left > 0; step(range)) {
        /* strncmp stops at the first difference, so it never reads past the NUL behind the data. */
        if (*range.at != '\r' || strncmp(range.at, "\r\n\r\n", 4) != 0)
            continue;
        *end = range.at + 4;
        LOG(LOG_EVENT, "Found end of http headers");
        return 0;
    }
    return -1;
}

int find_HTTP_302_code(const char *buffer, int32_t length)
{
    if (!buffer || length < 1) {
        LOG(LOG_FAILURE, "Received NULL buffer pointer %d ", length);
        return -1;
    }
    scan_range range = {buffer, length};
    if (!eat_pattern(range, "HTTP/1.1") || !skip_blanks(range) || !eat_pattern(range, "302"))
        return -1;
    LOG(LOG_EVENT, "Found http 302 status code");
    return 0;
}

int find_http_location_header(const char *buffer, int32_t length, const char **value, int32_t *value_length)
{
    scan_range range = {buffer, length};
    if (!find_pattern(range, "location:") || !skip_blanks(range))
        return -1;
    *value = range.at;
    (void)find_any_of(range, " \r", 2); /* the end of the range ends the value as well */
    *value_length = static_cast<int32_t>(range.at - *value);
    LOG(LOG_EVENT, "Found Location Header");
    return 0;
}

int find_deviceid_cookie(const char *buffer, int32_t length, const char **value, int32_t *value_length)
{
    scan_range range = {buffer, length};
    while (find_pattern(range, "set-cookie:")) {
        if (!skip_blanks(range))
            return -1;
        if (!eat_pattern(range, "deviceid") || !skip_blanks(range) || !eat_pattern(range, "="))
            continue; /* another cookie */
        const char *start = range.at;
        if (!find_any_of(range, "; \r", 3))
            return -1;
        *value = start;
        *value_length = static_cast<int32_t>(range.at - start);
        return 0;
    }
    return -1;
}

int find_content_length(const char *buffer, int32_t length, int32_t *number)
{
    scan_range range = {buffer, length};
    if (!find_pattern(range, "content-length:"))
        return -1;
    if (!skip_blanks(range))
        return 0;
    const char *start = range.at;
    if (!find_any_of(range, " \r", 2))
        return 0;
    char digits[256] = "";
    size_t digit_count = static_cast<size_t>(range.at - start);
    if (digit_count >= sizeof(digits))
        digit_count = sizeof(digits) - 1;
    memcpy(digits, start, digit_count);
    *number = text_to_int(digits);
    LOG(LOG_TRACE, "HTTP content-length is  %d\n", *number);
    return 0;
}
