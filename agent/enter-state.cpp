#include "agent/enter-state.h"

#include <cstdlib>

#include "agent/da.h"
#include "agent/debug-log.h"
#include "agent/hooks.h"

#define MODULE "device-agent.c"

void da_enter_state(int32_t new_state)
{
    LOG(LOG_TRACE, "Previous state %d new state %d", da.state, new_state);
    da.state = new_state;
    state_generation++;
    if (new_state < DA_STATE_IDLE || new_state > DA_STATE_DISCONNECTED) {
        LOG(LOG_FAILURE, "Fatal error, aborting Device-Agent");
        abort();
    }
    call_hook(hooks.state_entry[new_state]);
}
