#include <cstdarg>
#include <cstdio>

#include <syslog.h>

#include "device/tavosutils.h"

void clog_set_daemonname(const char *name)
{
    static char kept[64]; /* openlog(3) keeps the pointer, not the text */
    snprintf(kept, sizeof(kept), "%s", name);
    openlog(kept, LOG_PID, LOG_DAEMON);
}

void clog_print(int level, const char *format, ...)
{
    int severity = level >= LOG_EMERG && level <= LOG_DEBUG ? level : LOG_DEBUG;
    va_list arguments;
    va_start(arguments, format);
    vsyslog(LOG_DAEMON | severity, format, arguments);
    va_end(arguments);
}
