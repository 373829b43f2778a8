/*
 * "CONFIG RESTORE": ten minutes after a reconfigured device lost its controller, the last good configuration
 * is put back, unless the connection returns before. There is at most one such timer.
 */
#pragma once

/* Starts the timer unless it runs. */
void start_cfg_restore_timer(void);

/* The controller is back: stops the timer, with a log line if it ran. */
void stop_cfg_restore_timer(void);
