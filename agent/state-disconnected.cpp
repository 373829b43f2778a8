#include "agent/state-disconnected.h"

#include "agent/da.h"
#include "agent/debug-log.h"
#include "agent/enter-state.h"
#include "agent/hooks.h"
#include "agent/registration.h"
#include "agent/state-connecting.h"
#include "agent/ws-close.h"
#include "agent/ws-link.h"
#include "platform/connection-status.h"
#include "platform/parent-mac.h"

#define MODULE "device-agent.c"

void enter_disconnected(void)
{
    LOG(LOG_EVENT, "DA_STATE_DISCONNECTED");
    /* A timer or a frame of the lost connection must not hurt the next one. */
    ws_forget_leftovers();
    cancel_registration();
    cancel_reconnect_timer();

    pmac_discovery_complete = 0;
    platform_start_pmac_listener();
    call_hook(hooks.cancel_periodic_stats);
    da.registered = 0;
    platform_set_orv_connection_state(ORV_NOT_CONNECTED, nullptr);
    da.register_sent = 0;
    ws.pong_received = 1;
    ws.pong_loss = 0;
    da_enter_state(DA_STATE_IDLE);
}
