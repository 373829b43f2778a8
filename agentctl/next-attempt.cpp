#include "agentctl/next-attempt.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sstream>

#include "agent/debug-log.h"
#include "agent/owners.h"

/* The last bytes of a file. */
static std::string tail_of(const char *path)
{
    enum { TAIL_SIZE = 65536 };
    file_ptr file(fopen(path, "re"));
    if (!file)
        return "";
    if (fseek(file.get(), -TAIL_SIZE, SEEK_END) != 0)
        rewind(file.get());
    std::string text(TAIL_SIZE, '\0');
    text.resize(fread(text.data(), 1, text.size(), file.get()));
    return text;
}

/* The seconds that a line announces, or -1. The minutes are whole ones. */
static int64_t announced_delay(const std::string &line)
{
    static const char attempt[] = ":Attempting (re)connection in ";
    static const char reconnect[] = ",  reconnect_timeout ";
    size_t at = line.find(attempt);
    if (at != std::string::npos) {
        char *unit = nullptr;
        long count = strtol(line.c_str() + at + sizeof(attempt) - 1, &unit, 10);
        return strcmp(unit, " minutes") == 0 ? int64_t{count} * 60 : int64_t{count};
    }
    at = line.find(reconnect);
    return at == std::string::npos ? -1 : strtol(line.c_str() + at + sizeof(reconnect) - 1, nullptr, 10);
}

static int64_t time_of(const std::string &line)
{
    struct tm parts = {};
    if (!strptime(line.c_str(), "%Y-%m-%d %H:%M:%S", &parts))
        return -1;
    parts.tm_isdst = -1;
    return mktime(&parts);
}

int64_t attempt_in_log(const std::string &log, int64_t now)
{
    int64_t due = 0;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        int64_t delay = announced_delay(line);
        int64_t when = delay < 0 ? -1 : time_of(line);
        if (when >= 0)
            due = when + delay;
    }
    return due > now ? due : 0;
}

int64_t announced_attempt(int64_t now)
{
    return attempt_in_log(tail_of(AGENT_LOG_FILE ".old") + tail_of(AGENT_LOG_FILE), now);
}
