/*
 * The answer to a device-information request: why the connection was last closed and the device last
 * rebooted.
 */
#pragma once

/*
 * Builds and queues the 423 message; the close reason is reported once. Returns what write_to_orv returns, or
 * INTERNAL_ERROR with the error text set when it cannot be serialised.
 */
int build_and_send_dev_info(char *error_text);
