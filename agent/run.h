/*
 * Running other programs and waiting for them. Children start with default signal dispositions, an empty mask
 * and descriptors 0, 1 and 2 alone (everything the agent opens is close-on-exec). Both calls block the loop
 * until the child ends. Signals of the agent are served during the wait.
 */
#pragma once

/*
 * Runs the program at `path` without a shell; the arguments are a null-terminated list, argument 0 is the
 * base name. Returns the raw wait status, or -1. A shell (sh, ash, bash, dash) may run a script, never a
 * command string: an argument that begins with "-c" or "+c" is refused with -1 and nothing is started. The
 * heartbeat goes on for five minutes; a command that hangs longer is the outside watchdog's, which then sees
 * it grow old.
 */
int safe_system_run(const char *path, ...) __attribute__((sentinel));

/*
 * Runs a shell command as system(3) does, and the heartbeat goes on for as long as that takes. Returns
 * the raw wait status, or -1 when no child could be made.
 */
int run_shell(const char *command);
