/*
 * Running other programs and waiting for them. Children start with default signal dispositions, an empty mask
 * and descriptors 0, 1 and 2 alone (everything the agent opens is close-on-exec). Both calls block the loop
 * until the child ends. Signals of the agent are served during the wait.
 */
#pragma once

/*
 * Runs the program at `path` without a shell; the arguments are a null-terminated list, argument 0 is the
 * base name. Returns the raw wait status, or -1. A shell (sh, ash, bash, dash) may run a script, never a
 * command string: an argument that begins with "-c" or "+c" is refused with -1 and nothing is started. For
 * short commands: one that hangs is ended by the outside watchdog, which sees the heartbeat grow old.
 */
int safe_system_run(const char *path, ...) __attribute__((sentinel));

/*
 * Runs a shell command as system(3) does, for as long as it takes: the heartbeat goes on meanwhile. Returns
 * the raw wait status, or -1 when no child could be made.
 */
int run_shell(const char *command);
