/*
 * The controller's address changed on the device: leave the controller there is and look for the new one.
 */
#pragma once

#include <cstddef>

/*
 * Connected: closes with the reason, and forces the closure when it is not reported. Waiting for discovery:
 * discovers in 5 s. On the way to a connection: waits for that to end, looking every 5 s.
 */
void close_for_config_change(const char *reason, size_t len);

/*
 * The same for whoever knows that the address itself has changed: an attempt to connect to the old one, or
 * the wait for the next attempt, is given up at once, and discovery begins in 5 s.
 */
void leave_for_new_address(const char *reason, size_t len);

/* For tests: stops the looking. */
void config_change_reset(void);
