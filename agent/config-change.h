/*
 * The controller's address changed on the device: leave the controller there is and look for the new one.
 */
#pragma once

#include <cstddef>

/*
 * Connected: closes with the reason. Waiting for discovery: discovers in 5 s. On the way to a connection:
 * waits for that to end, looking every 5 s.
 */
void close_for_config_change(const char *reason, size_t len);

/* For tests: stops the looking. */
void config_change_reset(void);
