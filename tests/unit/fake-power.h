/*
 * A power switch: the process is killed in the middle of a chosen call that changes a file. Wraps write,
 * fsync, rename and unlink.
 */
#pragma once

#include <string>
#include <vector>

/* The call that is cut off, counted from 0; -1: none. A write gets half of its bytes through. */
extern int calls_until_power_cut;

/* Counts one more call, for what is not wrapped here; true when the power goes in it. */
bool power_goes_now(void);

/* Ends the process at once, without a trace of its own. */
[[noreturn]] void cut_power(void);

/* Files that were renamed without having been synced before: a real power cut could leave them empty. */
extern std::vector<std::string> renamed_unsynced;
