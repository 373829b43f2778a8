/*
 * The device's configuration shell.
 */
#pragma once

/*
 * Runs "/usr/bin/clish" with two arguments, an option and its value, and waits for its end. How it ended is
 * only logged: the shell carries out what it can of a file and reports the rest by a status.
 */
void run_clish(const char *option, const char *value);
