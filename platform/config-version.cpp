#include "platform/config-version.h"

#include <cstdio>
#include <string>

#include "agent/debug-log.h"
#include "agent/state-file.h"
#include "agent/text.h"
#include "agent/utils.h"

#define MODULE "wifi.c"

enum { CONFVER_LENGTH = 4095 };

int platform_init_config_version(void)
{
    if (file_exists(CONFVER_FILE) == 0)
        return 0;
    if (replace_file(CONFVER_FILE, "1") != 0) {
        LOG(LOG_FAILURE, "Not able to create the config version file");
        return -1;
    }
    return 0;
}

int32_t platform_get_da_config_version(void)
{
    char text[CONFVER_LENGTH + 1];
    if (read_value_file(CONFVER_FILE, text, CONFVER_LENGTH) != 0) {
        LOG(LOG_FAILURE, "Failed to retrieve the config value");
        return -1;
    }
    LOG(LOG_TRACE, "config value : %s \n", text);
    return text_to_int(text);
}

int platform_bump_da_config_version(void)
{
    int32_t version = platform_get_da_config_version();
    if (version == -1)
        return -1;
    if (version < INT32_MAX)
        version++;
    if (replace_file(CONFVER_FILE, std::to_string(version == INT32_MAX ? 1 : version)) != 0) {
        LOG(LOG_FAILURE, "Unable to open (read case) the config version file");
        return -1;
    }
    printf("new config value %d \n", version);
    return 0;
}
