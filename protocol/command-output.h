/*
 * The output of the command that runs on the device, the log stream among them, on its way to whoever asked
 * for it. The controller gets messages 409, in which the output of a second is gathered; the local front end
 * gets each piece at once.
 */
#pragma once

#include <cstdint>

enum { TS_DATA_SIZE = 8192 };

/* Who asked, in ts_mode. */
enum {
    TS_FOR_FRONT_END = 0,
    TS_FOR_CONTROLLER = 1,
};

extern int32_t ts_mode;
extern int32_t exec_running;       /* 1 while there may be more output; whoever runs the command keeps it */
extern char ts_data[TS_DATA_SIZE]; /* gathered for the controller since the last message, a text */

/*
 * Takes one piece of output, a text in any encoding. `status` is "Initiated", "InProgress", "Complete" or
 * "Error". For the controller
 * - "Initiated" sends the text at once and starts the "SEND TS DATA" timer,
 * - "InProgress" gathers the text; a piece that does not fit beside what is there is dropped,
 * - "Complete" leaves the report to the timer; with a text, which only a failed look-up has, it is sent,
 * - anything else is sent at once, without the text.
 * Returns 0, or what sending returned; -1 also when the message cannot be serialised.
 */
int send_exec_cmd_output(const char *text, const char *status);

/*
 * "SEND TS DATA", every second: sends what was gathered; when the command has ended and nothing is left,
 * "Complete", and that ends the timer. A lost connection ends it too, and the command with it.
 */
void send_ts_data_cb(void *name);

/* For tests: forgets output, timer and mode. */
void command_output_reset(void);
