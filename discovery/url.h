/*
 * A URL in pieces of bounded size. The split itself is http_parser_parse_url's; here its findings are copied,
 * with a limit for each piece.
 */
#pragma once

#include <http_parser.h>

/* What is not in the URL is empty. Each piece ends in NUL. */
struct parsed_url {
    char protocol[6];
    char host[256];
    char port[5];     /* digits as text; ports of five digits are refused on purpose */
    char path[512];   /* with its leading "/" */
    char query[2048]; /* without the "?" */
};

/*
 * Fills the record from the text that http_parser_parse_url was given and what it found there. Returns 0, or
 * -1 when scheme or host is missing or a piece is too long; the record is then partly filled and not to be
 * used. Who wants a default port takes 443 when `port` is empty.
 */
int get_parsed_url_details(const char *url, const http_parser_url *found, parsed_url *out);
