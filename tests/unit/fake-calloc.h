/*
 * A calloc that runs out of memory, for programs that are linked with --wrap=calloc.
 */
#pragma once

/* So many calls succeed, then none; -1, the value at start: all do. */
extern int callocs_left;
