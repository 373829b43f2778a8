/*
 * DA_STATE_IDLE: waits for "DISCOVERY DELAY" and then discovers.
 */
#pragma once

#include "agent/named-timer.h"

/* "DISCOVERY DELAY": idle_timeout seconds. */
extern named_timer discovery_timer;

void enter_idle(void);
