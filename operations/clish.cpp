#include "operations/clish.h"

#include "agent/debug-log.h"
#include "agent/run.h"

#define MODULE "wifi.c"

#define CLISH "/usr/bin/clish"

void run_clish(const char *option, const char *value)
{
    int status = safe_system_run(CLISH, option, value, static_cast<char *>(nullptr));
    if (status != 0)
        LOG(LOG_NOTABLE, "%s: %s %s %s ended with status %d", "run_clish", CLISH, option, value, status);
}
