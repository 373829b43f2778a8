#include "agent/state-connected.h"

#include <unistd.h>

#include "agent/cfg-restore-timer.h"
#include "agent/da.h"
#include "agent/debug-log.h"
#include "agent/registration.h"
#include "agent/ws-link.h"
#include "platform/state-files.h"

#define MODULE "device-agent.c"

enum { QUICK_REDISCOVERY = 5 }; /* seconds */

void enter_connected(void)
{
    ws_watch(EV_READ);
    ws.reconnect_attempts = 0;
    idle_timeout = QUICK_REDISCOVERY;
    LOG(LOG_EVENT, "Connected to Orvanta (%d)", da.connect_count);
    da.connect_count++;
    (void)unlink(DEVICE_RECONFIGURED_FILE);
    stop_cfg_restore_timer();
    begin_registration();
}
