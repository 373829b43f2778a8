#include "platform/locate.h"

#include "agent/debug-log.h"
#include "agent/run.h"

#define MODULE "wifi.c"

int platform_locate(void)
{
    LOG(LOG_EVENT, "%s: ** Blinking device LEDs ** ", "platform_locate");
    (void)safe_system_run("/usr/bin/flash_leds", static_cast<char *>(nullptr));
    return 0;
}
