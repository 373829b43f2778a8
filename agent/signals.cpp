#include "agent/signals.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <signal.h>

#include "agent/da.h"
#include "agent/debug-log.h"
#include "agent/enter-state.h"
#include "agent/hooks.h"
#include "agent/ws-close.h"
#include "operations/exec-cmd.h"

#define MODULE "device-agent.c"

static bool leaving; /* SIGTERM was seen: whatever comes while the agent says goodbye is too late */

static void leave(void)
{
    leaving = true;
    send_close_frame_to_orvanta("DEV_CFG_UPDATE", strlen("DEV_CFG_UPDATE"));
    kill_exec_cmd(); /* the kernel would take the program along, but not what that has started */
    call_hook(hooks.stop_fw_dl_process); /* what it leaves would block upgrades under the next agent */
    exit(0);
}

static void rediscover(void)
{
    da.dhcp15_allowed = 0;
    da.discovery_method = DISCOVER_RESTART;
    da_enter_state(DA_STATE_DISCONNECTED);
}

/* Runs only where the agent waits, so it may do all of this. */
static void sighandler(int number)
{
    if (leaving)
        return;
    int saved_errno = errno; /* the wait that is interrupted looks at it */
    LOG(LOG_NOTABLE, "sighandler invoked, signal  %d", number);
    if (number == SIGTERM)
        leave();
    else if (number == SIGUSR1)
        rediscover();
    else if (number == SIGHUP)
        da.debug_level = da.debug_level < LOG_TRACE ? da.debug_level + 1 : LOG_FAILURE;
    errno = saved_errno;
}

void platform_init_signal_handler(void)
{
    static const int numbers[] = {SIGUSR1, SIGHUP, SIGTERM};
    struct sigaction action = {};
    action.sa_handler = sighandler;
    sigemptyset(&action.sa_mask);
    for (int number : numbers)
        sigaddset(&action.sa_mask, number); /* they never interrupt each other */
    for (int number : numbers)
        sigaction(number, &action, nullptr);
}
