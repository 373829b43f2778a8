/*
 * DA_STATE_CONNECTING: one websocket connect attempt, and what follows when it fails: three waits for
 * reconnect, then back to discovery.
 */
#pragma once

void enter_connecting(void);

/* Schedules the next attempt; the fourth failure in a row falls back to discovery after five minutes. */
void wait_for_reconnect(void);

/* Stops "WAIT FOR RECONNECT". */
void cancel_reconnect_timer(void);
