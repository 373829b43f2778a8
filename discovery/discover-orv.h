/*
 * Which controller manages this device? Asks one source after another for a candidate host (static URL, DHCP
 * option 43, DHCP option 15, the default cloud) and the candidate for the controller's URL and the device's
 * id.
 */
#pragma once

#include <cstdint>

/* 1 leaves the default cloud out of the next pass that gets there; nothing in the agent sets it. */
extern int32_t skip_default_cloud;

/*
 * One discovery pass, beginning with da.discovery_method. Returns 0 with da.orv_url and da.deviceId filled,
 * else -1 with a new idle_timeout. Blocks for as long as the onboarding exchange does. When a signal has
 * entered another state meanwhile (state_generation), it returns -1 at once and leaves da.discovery_method
 * and idle_timeout to that state.
 */
int discover_orv(void);

/* da.orv_url, or null while da.discovery_method is none (5 and more, and negative ones: forced rediscovery).
 */
const char *get_orv_url(void);

/* Sets idle_timeout for the time until the next pass: short in aggressive mode, else as the controller
 * advised. */
void set_discover_idle_time_out(void);

/* Room for a candidate's host name. */
enum { CANDIDATE_HOST_SIZE = 256 };

/*
 * Checks a candidate URL, with "https://" or without, and takes it apart; the port is 443 unless given.
 * Returns 0, or -1 with a log line.
 */
int parse_orv_url(const char *url, char (&host)[CANDIDATE_HOST_SIZE], int32_t *port);

/*
 * Asks host:port for the controller. On success (0) da.orv_url is the controller's URL and da.deviceId the
 * device's id, also saved to flash; -1 with a log line when either is missing.
 */
int lookup_orv_redirect(const char *host, int32_t port);

/* How da.discovery_method is shown. */
const char *get_discovery_method_name(void);
