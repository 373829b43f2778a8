#include "transfer/answer.h"

#include <cctype>
#include <cstring>

#include <strings.h>

/* Digits alone, below 2^62; -1 for anything else. */
static int64_t parse_count(const std::string &text)
{
    enum { DIGITS_LIMIT = 18 };
    if (text.empty() || text.size() > DIGITS_LIMIT)
        return -1;
    int64_t value = 0;
    for (char c : text) {
        if (c < '0' || c > '9')
            return -1;
        value = value * 10 + (c - '0');
    }
    return value;
}

static std::string trimmed(const char *from, const char *to)
{
    while (from < to && isspace(static_cast<unsigned char>(*from)))
        from++;
    while (to > from && isspace(static_cast<unsigned char>(to[-1])))
        to--;
    return {from, to};
}

/* ---- the single headers ---- */

static void take_length(answer *found, const std::string &value)
{
    int64_t length = parse_count(value);
    if (length < 0 || (found->length >= 0 && found->length != length))
        found->contradicts = true;
    found->length = length;
}

static void take_transfer_coding(answer *found, const std::string &value)
{
    if (strcasecmp(value.c_str(), "chunked") == 0)
        found->chunked = true;
    else if (strcasecmp(value.c_str(), "identity") != 0)
        found->coded = true;
}

static void take_location(answer *found, const std::string &value) { found->location = !value.empty(); }
static void take_etag(answer *found, const std::string &value) { found->etag = value; }
static void take_last_modified(answer *found, const std::string &value) { found->last_modified = value; }
static void take_date(answer *found, const std::string &value) { found->date = value; }
static void take_content_range(answer *found, const std::string &value) { found->content_range = value; }

static const struct {
    const char *name;
    void (*take)(answer *found, const std::string &value);
} headers[] = {
    {"Content-Length", take_length},       {"Transfer-Encoding", take_transfer_coding},
    {"Location", take_location},           {"ETag", take_etag},
    {"Last-Modified", take_last_modified}, {"Date", take_date},
    {"Content-Range", take_content_range},
};

static void take_header(answer *found, const char *line, size_t length)
{
    const char *end = line + length;
    const auto *colon = static_cast<const char *>(memchr(line, ':', length));
    if (!colon)
        return;
    std::string name(line, colon);
    for (const auto &header : headers) {
        if (strcasecmp(header.name, name.c_str()) != 0)
            continue;
        std::string value = trimmed(colon + 1, end);
        bool overlong = value.size() > HEADER_VALUE_LIMIT;
        /* What decides about the body's end is never passed over. A long Location is libcurl's to follow. */
        if (overlong && header.take != take_length && header.take != take_transfer_coding &&
            header.take != take_location)
            return;
        header.take(found, value);
        return;
    }
}

/* "HTTP/1.1 404 Not Found" */
static void take_status_line(answer *found, const char *line, size_t length)
{
    *found = {};
    const char *end = line + length;
    const auto *blank = static_cast<const char *>(memchr(line, ' ', length));
    if (!blank)
        return;
    found->status_text = trimmed(blank, end).substr(0, HEADER_VALUE_LIMIT);
    int64_t status = parse_count(found->status_text.substr(0, 3));
    found->status = static_cast<int>(status < 0 ? 0 : status);
}

/* ---- the answer ---- */

bool answer_take_line(answer *found, const char *line, size_t length)
{
    static const char http[] = "HTTP/";
    if (length >= strlen(http) && memcmp(line, http, strlen(http)) == 0) {
        take_status_line(found, line, length);
        return false;
    }
    if (trimmed(line, line + length).empty())
        return true;
    take_header(found, line, length);
    return false;
}

bool answer_is_redirect(const answer &found)
{
    return found.status >= 300 && found.status < 400 && found.location;
}

bool answer_is_preliminary(const answer &found) { return found.status >= 100 && found.status < 200; }

bool answer_is_temporary(int status)
{
    return status >= 500 || status == 408 || status == 425 || status == 429;
}

int parse_content_range(const std::string &text, int64_t *first, int64_t *last, int64_t *total)
{
    static const char unit[] = "bytes ";
    size_t dash = text.find('-');
    size_t slash = text.find('/');
    if (strncasecmp(text.c_str(), unit, strlen(unit)) != 0 || dash == std::string::npos ||
        slash == std::string::npos || slash < dash)
        return -1;
    *first = parse_count(text.substr(strlen(unit), dash - strlen(unit)));
    *last = parse_count(text.substr(dash + 1, slash - dash - 1));
    *total = parse_count(text.substr(slash + 1));
    return *first >= 0 && *first <= *last && *last < *total ? 0 : -1;
}
