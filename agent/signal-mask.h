/*
 * Where signals may strike: SIGTERM, SIGUSR1 and SIGHUP are blocked all the time and let in only while the
 * agent waits (pselect in the loop and in the onboarding exchange, waits for children). The handler then runs
 * where nothing is half done, so it may log, allocate and change state.
 */
#pragma once

#include <signal.h>

/* Blocks the three signals, ignores SIGPIPE, gives SIGCHLD its default; remembers the mask that lets them in.
 * Called first of all. */
void signals_block(void);

/* The mask for pselect(2): the one the process was started with, without the three signals. */
const sigset_t *signals_waiting_mask(void);

/*
 * Lets pending signals in, now. For right after a pselect(2) that found a descriptor ready: it returns at
 * once then, and on a busy loop no signal would ever get through.
 */
void signals_let_in(void);

/* In a child, before exec: default dispositions and an empty mask. */
void signals_reset_for_child(void);
