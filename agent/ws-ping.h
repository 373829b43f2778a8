/*
 * Keep-alive pings with their pong-loss rule, and the polling for the parent MAC that begins with each
 * connection.
 */
#pragma once

/* Starts the cycle of a new connection: the first "PING" in 15 to 29 s, "PMAC" in 1 s unless that is settled.
 */
void start_pings(void);

/* Queues one ping. Returns what write_to_orv returns. */
int send_ping(void);

/* Queues one ping and logs how that went. */
void service_ping(void);

/* A pong came. */
void pong_received(void);

/* Callbacks of the timers "PING" and "PMAC". */
void ping_timer_cb(void *name);
void pmac_timer_cb(void *name);
