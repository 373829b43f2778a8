#include "agent/fatal.h"

#include <cstdio>
#include <cstdlib>

#include "agent/debug-log.h"

#define MODULE "device-agent.c"

void fatal_assert_failed(const char *condition, const char *function, const char *file, int line)
{
    debug_log(MODULE, line, 0, "%s: Assertion `%s' failed", function, condition);
    fprintf(stderr, "%s:%d: %s: Assertion `%s' failed.\n", file, line, function, condition);
    abort();
}
