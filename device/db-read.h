/*
 * The device's configuration values, one flat JSON object of texts.
 */
#pragma once

/* For tests: how often the file was read since the program began. */
unsigned int db_times_read(void);
