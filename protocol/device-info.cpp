#include "protocol/device-info.h"

#include <sys/sysinfo.h>
#include <unistd.h>

#include "agent/debug-log.h"
#include "agent/reasons.h"
#include "protocol/error-codes.h"
#include "protocol/message.h"

#define MODULE "common.c"

static void add_reason(const json_ptr &message, const char *path, const char *reason_key,
                       const char *time_key)
{
    char reason[REASON_SIZE] = "";
    int32_t seconds = get_reason(path, reason);
    add_text(message, reason_key, reason);
    add_integer(message, time_key, seconds);
}

int build_and_send_dev_info(char *error_text)
{
    json_ptr message = new_message(MSG_DEV_INFO_RSP);
    add_reason(message, LAST_CLOSE_REASON_FILE, "lastCloseReason", "lastCloseTS");
    add_reason(message, LAST_REBOOT_REASON_FILE, "lastRebootReason", "lastRebootTS");
    struct sysinfo system = {};
    sysinfo(&system);
    add_integer(message, "uptime", system.uptime);

    malloc_text text = dump_message(message, "build_and_send_dev_info");
    if (!text) {
        set_error_text(error_text, "json dump failed %s", "build_and_send_dev_info");
        return INTERNAL_ERROR;
    }
    LOG(LOG_TRACE, "%s: JSON Object: [%s]", "build_and_send_dev_info", text.get());
    int result = queue_text(text);
    if (result != 0)
        set_error_text(error_text, "Device information could not be queued");
    (void)unlink(LAST_CLOSE_REASON_FILE);
    return result;
}
