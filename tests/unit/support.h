/*
 * What the unit tests share. They run as root on the real paths, inside a sandbox that is thrown away.
 */
#pragma once

#include <functional>
#include <string>
#include <vector>

/* The whole content of a file, empty when there is none. */
std::string file_text(const std::string &path);

/* Writes a file whole, making its folders. */
void write_file(const std::string &path, const std::string &text);

/* Makes it impossible to bind a socket there: a folder that can be neither removed nor moved aside; and ends
 * that. */
void block_place(const std::string &path);
void free_place(const std::string &path);

/* True when the path exists. */
bool path_exists(const std::string &path);

/*
 * The messages logged since the last clear_log(), one per entry, without time stamp, process id and line
 * number: "module:message". Sets nothing: a test raises da.debug_level to see the levels it wants.
 */
std::vector<std::string> logged(void);
void clear_log(void);

/* True when a message (without the module) was logged exactly so. */
bool was_logged(const std::string &message);

/*
 * The calls so far of a device tool that the sandbox records ("date", "clish", "shutdown.sh"...), each its
 * arguments with blanks between; and forgetting them.
 */
std::vector<std::string> recorded(const std::string &tool);
void clear_recorded(const std::string &tool);

/* Puts the agent's record, loop, hooks and log back to the state of a fresh process, with debug_level 3. */
void fresh_agent(void);

/* Runs passes of the loop until the condition holds; false after the deadline. */
bool run_loop_until(const std::function<bool()> &condition, int milliseconds = 5000);
