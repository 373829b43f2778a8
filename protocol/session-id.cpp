#include "protocol/session-id.h"

#include <string>

#include "agent/debug-log.h"
#include "agent/state-file.h"
#include "agent/text.h"
#include "agent/utils.h"

#define MODULE "device-agent.c"

enum { SESSION_ID_LENGTH = 15 };

int32_t get_session_id(void)
{
    if (file_exists(SESSION_ID_FILE) == 0) {
        char text[SESSION_ID_LENGTH + 1];
        if (read_value_file(SESSION_ID_FILE, text, SESSION_ID_LENGTH) != 0) {
            LOG(LOG_FAILURE, "Failed to open file %s", SESSION_ID_FILE);
            return -1;
        }
        return text_to_int(text);
    }
    LOG(LOG_EVENT, "SessionID unavailable, regenerating");
    auto id = static_cast<int32_t>(random_number(0x7fffffff));
    if (replace_file(SESSION_ID_FILE, std::to_string(id)) != 0) {
        LOG(LOG_FAILURE, "Failed to open file %s for writing", SESSION_ID_FILE);
        return -1;
    }
    return id;
}
