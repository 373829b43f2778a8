/*
 * The board's facts in "/etc/velmora/board.json".
 */
#pragma once

#include <jansson.h>

/* One member of the file, borrowed until the next call; null when it is missing. */
const json_t *board_member(const char *name);

/* A member's text, borrowed until the next call; null when it is missing or no text. */
const char *board_text(const char *name);
