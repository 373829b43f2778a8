#include "agent/debug-log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>

#include <sys/stat.h>

#include "agent/da.h"
#include "agent/hooks.h"

static bool in_child;

static int file_only; /* how many log_file_only live */

log_file_only::log_file_only() { file_only++; }
log_file_only::~log_file_only() { file_only--; }

void log_set_child(void) { in_child = true; }

void log_time_stamp(char (&stamp)[20])
{
    time_t now = time(nullptr);
    struct tm parts;
    stamp[0] = '\0';
    if (localtime_r(&now, &parts))
        strftime(stamp, sizeof(stamp), "%F %H:%M:%S", &parts);
}

/*
 * Moves a full log away. rename(2) does what "/bin/mv LOG LOG.old" would, without a child for every 100 KiB
 * of log. A missing file counts as empty; a failed move leaves the file growing.
 */
static void rotate(const char *path)
{
    struct stat status;
    if (stat(path, &status) != 0 || status.st_size < LOG_ROTATE_SIZE)
        return;
    char old_path[128];
    snprintf(old_path, sizeof(old_path), "%s.old", path);
    (void)rename(path, old_path);
}

file_ptr log_open(const char *path)
{
    rotate(path);
    return file_ptr(fopen(path, "ae"));
}

void log_put(FILE *file, const char *line)
{
    fprintf(file, "%s\n", line);
    printf("%s\n", line);
    fflush(stdout);
}

/* Every line that passed the filter goes to the log stream. */
static void platform_logger(const char *line)
{
    if (file_only || in_child)
        return;
    log_file_only quiet;
    call_hook(hooks.append_logs, line);
}

int debug_log(const char *file, int line, int level, const char *format, ...)
{
    if (da.debug_level < level)
        return 1;

    int saved_errno = errno; /* callers log and then look at errno */
    if (file_ptr log = log_open(AGENT_LOG_FILE)) {
        char stamp[20];
        log_time_stamp(stamp);
        char text[LOG_LINE_SIZE];
        int used = snprintf(text, sizeof(text), "%s %d %s:%d:", stamp, gPid, file, line);
        if (used >= 0 && used < LOG_LINE_SIZE) {
            va_list arguments;
            va_start(arguments, format);
            vsnprintf(text + used, sizeof(text) - static_cast<size_t>(used), format, arguments);
            va_end(arguments);
        }
        platform_logger(text);
        log_put(log.get(), text);
    }
    errno = saved_errno;
    return 0;
}
