/*
 * What the three signals do: SIGTERM says goodbye and exits, SIGUSR1 looks for the controller afresh, SIGHUP
 * cycles the log level. See agent/signal-mask.h for where they may strike.
 */
#pragma once

/* Installs the handler for SIGUSR1, SIGHUP and SIGTERM. signals_block has been called before. */
void platform_init_signal_handler(void);
