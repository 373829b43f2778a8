/*
 * A JSON file kept in memory and read again only when it has changed.
 */
#pragma once

#include <jansson.h>

#include "device/file-mark.h"

struct watched_json {
    const char *path;
    file_mark mark;  /* of what `content` was read from */
    json_t *content; /* null when the file is missing, unreadable or not JSON */
    unsigned int times_read;
};

/* The file's present content, borrowed until the next call; null when there is none. */
const json_t *watched_json_get(watched_json *file);
