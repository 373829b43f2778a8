/*
 * What a server answers, read from its header lines. They come from a stranger: whatever they hold, reading
 * them takes a bounded amount of everything.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

enum {
    HEADERS_LIMIT = 128 * 1024, /* bytes of headers of one try, those of redirects included */
    HEADER_VALUE_LIMIT = 1024,  /* a value that is longer counts as not there */
};

/* The headers of one answer. Of several lines of a name the last one counts, except for the length. */
struct answer {
    int status = 0;
    std::string status_text;  /* "404 Not Found" */
    int64_t length = -1;      /* of the body, -1 when it is not told */
    bool contradicts = false; /* two lengths that differ, or one that is no number */
    bool chunked = false;
    bool coded = false; /* a transfer coding beside "chunked", which nobody asked for */
    bool location = false;
    std::string etag;
    std::string last_modified;
    std::string date;
    std::string content_range;
};

/* Takes one header line as it came, line end included; a status line begins a new answer. Returns true when
 * the line ends the headers. */
bool answer_take_line(answer *found, const char *line, size_t length);

/* The answer sends us on to another place. */
bool answer_is_redirect(const answer &found);

/* The answer is a preliminary one (1xx). */
bool answer_is_preliminary(const answer &found);

/* The server means: later, perhaps. */
bool answer_is_temporary(int status);

/* "bytes 100-4999/5000". Returns 0, or -1 when it is not of exactly this form or does not fit together. */
int parse_content_range(const std::string &text, int64_t *first, int64_t *last, int64_t *total);
