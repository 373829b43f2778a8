/*
 * Calls of the configuration daemon. A maker's build links its own library of this name, with C linkage.
 */
#pragma once

extern "C" {

/*
 * Where the library's own messages go: the source file and line that speak, and a plain text. Null, as at
 * start, drops them.
 */
extern void (*scmintf_print)(const char *file, int line, const char *message);
}
