#include "agent/named-timer.h"

#include "agent/fatal.h"

void timer_arm(named_timer &timer, int32_t seconds)
{
    fatal_assert(timer.callback);
    timer_disarm(timer);
    timer.handle = ev_add_timer(timer.callback, const_cast<char *>(timer.name), seconds, 0);
}

void timer_disarm(named_timer &timer)
{
    ev_del_timer(timer.handle);
    timer.handle = nullptr;
}

void timer_fired(named_timer &timer) { timer.handle = nullptr; }
