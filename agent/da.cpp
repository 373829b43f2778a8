#include "agent/da.h"

#include <cstring>

agent_context da;

uint32_t state_generation;
int32_t gPid;
int32_t idle_timeout = 5;
int32_t aggressive_mode;
int32_t retry_time;
char static_orv_url[256];
int32_t stay_idle;
int32_t pmac_discovery_complete;
int32_t orv_state_action_pending;
char g_orv_router[256];

void da_reset(void)
{
    memset(&da, 0, sizeof(da));
    da.reconnect_wait = 300;
    da.reconnect_delta = 60;
    idle_timeout = 5;
}
