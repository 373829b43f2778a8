/*
 * Memory that runs out: allocations of C++ objects of this size and more fail.
 */
#pragma once

#include <cstddef>

/* SIZE_MAX, the value at start, refuses nothing. */
extern size_t memory_refused_from;
