/*
 * When REGISTER goes out: once for each connection, as soon as the parent MAC is known or given up. Without
 * an answer the connection is closed about 62 seconds later.
 */
#pragma once

/* A new connection: no attempt was made yet. */
void begin_registration(void);

/* Sends REGISTER, or looks again in 2 s while the parent MAC is not settled. */
void da_register(void);

/* The controller answered: the attempt counts as answered and is no longer waited for. */
void registration_answered(void);

/* Refused: try again in 10 s ("REGISTER FAILED"). */
void retry_registration(void);

/* Stops every timer of the registration. */
void cancel_registration(void);
