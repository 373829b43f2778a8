#include "discovery/url.h"

#include <cstring>

#include "agent/debug-log.h"

#define MODULE "http_parser"

/* ---- one piece ---- */

static bool has_field(const http_parser_url *found, http_parser_url_fields field)
{
    return (found->field_set & (1u << field)) != 0;
}

static int field_length(const http_parser_url *found, http_parser_url_fields field)
{
    return found->field_data[field].len;
}

/* Copies a piece that is there. False, with an empty piece, when it is too long. */
template <size_t size>
static bool copy_field(char (&out)[size], const char *url, const http_parser_url *found,
                       http_parser_url_fields field)
{
    out[0] = '\0';
    if (!has_field(found, field))
        return true;
    size_t length = found->field_data[field].len;
    if (length >= size)
        return false;
    memcpy(out, url + found->field_data[field].off, length);
    out[length] = '\0';
    return true;
}

/* ---- the whole URL ---- */

int get_parsed_url_details(const char *url, const http_parser_url *found, parsed_url *out)
{
    if (!has_field(found, UF_SCHEMA))
        return -1;
    LOG(LOG_TRACE, "%s: len=%d offset=%d", __func__, field_length(found, UF_SCHEMA),
        static_cast<int>(found->field_data[UF_SCHEMA].off));
    LOG(LOG_TRACE, "url= [%s]", url);
    if (!copy_field(out->protocol, url, found, UF_SCHEMA)) {
        LOG(LOG_FAILURE, " Invalid proto len=%d", field_length(found, UF_SCHEMA));
        return -1;
    }
    LOG(LOG_TRACE, "%s: protocol=[%s]", __func__, out->protocol);

    if (!copy_field(out->host, url, found, UF_HOST)) {
        LOG(LOG_FAILURE, " URL too long len=%d", field_length(found, UF_HOST));
        return -1;
    }
    if (!has_field(found, UF_HOST))
        return -1;
    if (!copy_field(out->port, url, found, UF_PORT)) {
        LOG(LOG_FAILURE, " Invalid port len=%d", field_length(found, UF_PORT));
        return -1;
    }
    if (!copy_field(out->path, url, found, UF_PATH)) {
        LOG(LOG_FAILURE, " Path too long len=%d", field_length(found, UF_PATH));
        return -1;
    }
    if (!copy_field(out->query, url, found, UF_QUERY)) {
        LOG(LOG_FAILURE, " Query string too long len=%d", field_length(found, UF_QUERY));
        return -1;
    }
    return 0;
}
