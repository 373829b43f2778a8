/*
 * When the agent tries again: it says so in its log and nowhere else to the second.
 */
#pragma once

#include <cstdint>
#include <string>

/* The time of the attempt that the log announced last, when that lies ahead of `now`; else 0. */
int64_t announced_attempt(int64_t now);

/* The same from the text of a log. */
int64_t attempt_in_log(const std::string &log, int64_t now);
