/*
 * What agentctl can do. Each verb gets its own arguments, argv[0] is the verb, and returns the exit status.
 */
#pragma once

int verb_status(int argc, char **argv);
int verb_check(int argc, char **argv);
int verb_log(int argc, char **argv);
int verb_trap(int argc, char **argv);
int verb_run(int argc, char **argv);
int verb_stop(int argc, char **argv);
int verb_scan(int argc, char **argv);
