/*
 * Numbers on the command line.
 */
#pragma once

#include <cstdint>

/* True when the whole word is a decimal number from `least` to `most`; only then `number` is written. */
bool whole_number(const char *word, int32_t least, int32_t most, int32_t *number);
