#include "agent/lws-log.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "agent/da.h"
#include "agent/debug-log.h"

void lws_log(int level, const char *format, ...)
{
    if (da.debug_level < level)
        return;
    file_ptr log = log_open(LWS_LOG_FILE);
    if (!log)
        return;
    char stamp[20];
    log_time_stamp(stamp);
    char text[LOG_LINE_SIZE];
    int used = snprintf(text, sizeof(text), "%s:", stamp);
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text + used, sizeof(text) - static_cast<size_t>(used), format, arguments);
    va_end(arguments);
    log_put(log.get(), text);
}

/* The classes that pass at a debug level are those below this number. */
static int class_limit(int debug_level)
{
    if (debug_level <= 0)
        return 2; /* errors */
    if (debug_level == 1)
        return 5; /* and notices */
    if (debug_level == 2)
        return 9; /* and infos */
    return LWS_LOG_MASK + 1;
}

void lws_log_hook(int lws_level, const char *text)
{
    if ((lws_level & LWS_LOG_MASK) == 0 || lws_level >= class_limit(da.debug_level))
        return;
    /* The library ends its messages with a newline; the log adds its own. */
    size_t length = strlen(text);
    if (length > 0 && text[length - 1] == '\n')
        length--;
    lws_log(LOG_FAILURE, "LWS: %.*s", static_cast<int>(length), text);
}
