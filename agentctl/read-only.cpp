#include "agentctl/read-only.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <vector>

#include "agent/debug-log.h"
#include "agent/state-file.h"
#include "platform/connection-status.h"
#include "platform/heartbeat.h"

static std::vector<std::string> failures;
static std::string denied;

void forget_told(void)
{
    failures.clear();
    denied.clear();
}

std::string first_failure(void) { return failures.empty() ? "" : failures.front(); }

bool failure_with(const char *part, std::string *found)
{
    for (const std::string &line : failures)
        if (line.find(part) != std::string::npos) {
            *found = line;
            return true;
        }
    return false;
}

std::string access_denied_message(void) { return denied; }

/* ---- what the agent's parts write with ---- */

int debug_log(const char *, int, int level, const char *format, ...)
{
    if (level > LOG_FAILURE)
        return 1;
    char text[LOG_LINE_SIZE];
    va_list arguments;
    va_start(arguments, format);
    int saved_errno = errno; /* callers log and then look at errno */
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    std::string line = text;
    line.erase(std::find_if(line.rbegin(), line.rend(), [](char c) { return c != '\n' && c != ' '; }).base(),
               line.end());
    failures.push_back(line);
    errno = saved_errno;
    return 0;
}

int replace_file(const char *, std::string_view, mode_t)
{
    errno = EROFS;
    return -1;
}

int adopt_file(const char *, const char *)
{
    errno = EROFS;
    return -1;
}

int platform_set_orv_connection_state(int32_t code, const char *detail)
{
    if (code == ORV_ACCESS_DENIED && detail)
        denied = detail;
    return 0;
}

void platform_update_heartbeat(void) {}
