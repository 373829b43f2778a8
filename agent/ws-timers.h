/*
 * Timers of a connection that others than their owner stop: each is started, and given its callback, where
 * its story is told, and stopped wherever the connection ends.
 */
#pragma once

#include "agent/named-timer.h"

extern named_timer connect_timer; /* "LWS CONNECTING": how the connect attempt ended is not known yet */
extern named_timer serve_timer;   /* "LWS SERVICE": a connection comes up or goes down */
extern named_timer ping_timer;    /* "PING" */
extern named_timer pmac_timer;    /* "PMAC": the parent MAC is looked for */

/* Stops "PING", with a log line when it runs. */
void cancel_ping_timer(void);
