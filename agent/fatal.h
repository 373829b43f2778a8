/*
 * Assertions that stay in every build type: the process ends with abort(), and the supervisor starts it
 * again. For our own mistakes and for what the agent cannot live without; never for bytes from outside.
 */
#pragma once

/* Logs the failed condition with its place and aborts. */
[[noreturn]] void fatal_assert_failed(const char *condition, const char *function, const char *file,
                                      int line);

#define fatal_assert(condition)                                                                              \
    ((condition) ? (void)0 : fatal_assert_failed(#condition, __func__, __FILE__, __LINE__))
