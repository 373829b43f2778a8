#include "agent/reasons.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "agent/debug-log.h"
#include "agent/owners.h"
#include "agent/state-file.h"
#include "agent/text.h"

#define MODULE "utils.c"

ev_timer *orv_upd_timer;

int save_reason(const char *path, const char *reason)
{
    int32_t now = clamp_to_int32(time(nullptr));
    std::string text = std::to_string(now) + ":" + reason;
    if (replace_file(path, text) != 0) {
        LOG(LOG_FAILURE, "%s: Failed to open file for writing", "save_reason");
        return -1;
    }
    LOG(LOG_TRACE, "Saving reason string [%d:%s]", now, reason);
    return 0;
}

enum {
    TIME_STAMP_LENGTH = 11,
    REASON_LENGTH = REASON_SIZE - 1,
};

/* The characters before the first colon, cut. Returns what ended them: a colon or EOF. */
static int read_time_stamp(FILE *file, char (&stamp)[TIME_STAMP_LENGTH + 1])
{
    int count = 0;
    int c;
    while ((c = fgetc(file)) != EOF && c != ':') {
        if (count < TIME_STAMP_LENGTH)
            stamp[count] = static_cast<char>(c);
        else
            LOG(LOG_EVENT, "Timestamp too long (%d), truncating", count);
        count++;
    }
    return c;
}

/* The rest of the file, cut, without one trailing newline. */
static void read_reason(FILE *file, char (&reason)[REASON_SIZE])
{
    int count = 0;
    int c;
    while ((c = fgetc(file)) != EOF) {
        if (count == REASON_LENGTH) {
            LOG(LOG_EVENT, "reason too long (%d), truncating", count);
            reason[count] = '\0';
            return;
        }
        reason[count++] = static_cast<char>(c);
    }
    if (count == 0)
        return;
    if (reason[count - 1] == '\n')
        count--;
    reason[count] = '\0';
}

int32_t get_reason(const char *path, char (&reason_out)[REASON_SIZE])
{
    file_ptr file(fopen(path, "re"));
    if (!file)
        return 0;
    char stamp[TIME_STAMP_LENGTH + 1] = "";
    if (read_time_stamp(file.get(), stamp) == ':')
        read_reason(file.get(), reason_out);

    int32_t seconds = text_to_int(stamp);
    time_t when = seconds;
    struct tm parts = {};
    char spoken[26] = ""; /* the size asctime_r asks for */
    if (localtime_r(&when, &parts))
        asctime_r(&parts, spoken);
    LOG(LOG_TRACE, "%s: reason [%s] time=%d(%s)", "get_reason", reason_out, seconds, spoken);
    return seconds;
}

void del_orv_upd_timer(void)
{
    ev_del_timer(orv_upd_timer);
    orv_upd_timer = nullptr;
}
