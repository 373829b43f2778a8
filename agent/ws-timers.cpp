#include "agent/ws-timers.h"

#include "agent/debug-log.h"

#define MODULE "device-agent.c"

named_timer connect_timer = {"LWS CONNECTING", nullptr, nullptr};
named_timer serve_timer = {"LWS SERVICE", nullptr, nullptr};
named_timer ping_timer = {"PING", nullptr, nullptr};
named_timer pmac_timer = {"PMAC", nullptr, nullptr};

void cancel_ping_timer(void)
{
    if (!ping_timer.handle)
        return;
    LOG(LOG_EVENT, "Cancelling ping timer");
    timer_disarm(ping_timer);
}
