/*
 * The radio scan (message 111, from the controller or from the web front end): the Wi-Fi daemon scans, and
 * its reply goes as message 411 to whoever asked. One scan at a time, one connection to the daemon for each.
 *
 * A scan always comes to an end, and whoever asked hears of it. Beside what the daemon answers, these end it
 * with a failure (711):
 * - the daemon is not there or does not take the request;
 * - it closes the connection, or the reply stops, before all that its header counts is there;
 * - it is silent for SCAN_LIMIT.
 * A reply of an unknown type alone is ignored without a word; the next scan may begin.
 *
 * The daemon's socket is a stream, so a reply may come in pieces. They are gathered until the reply is
 * complete; a failure text without a NUL ends where the pieces do.
 */
#pragma once

#include <cstddef>
#include <cstdint>

#include <jansson.h>

#define SCAN_SOCKET "/var/tmp/wifid_agent"

enum {
    SCAN_REQUEST_SIZE = 12, /* bytes, all zero */
    SCAN_READ_SIZE = 8192,  /* bytes that are read at once */
    SCAN_LIMIT = 120,       /* seconds from the request to the reply; a slow radio takes half a minute */
    SCAN_PIECES_LIMIT = 2,  /* seconds from the first piece of a reply to its last */
};

extern int32_t
    scan_in_progress; /* 1 from a request that the daemon has taken until its reply is dealt with */

/*
 * Starts a scan of the request's "band"; mode as in orv_radio_scan (protocol/scan-failure.h). Returns 0, also
 * when there is no band (then nothing happens) and when the scan could not begin, which has been told. 1
 * while a scan runs, 5 for a band other than "2.4GHz" and "5GHz", 7 without a request, each with the error
 * text set.
 */
int parse_radio_scan_request(const json_t *request, char *error_text, int32_t mode);

/*
 * Asks the daemon for a scan. The band is not sent: the daemon scans the radio that the device has. Returns
 * 0, or -1 when the device does not have this band or cannot scan; a failure has been told to whoever asked.
 */
int platform_start_radio_scan(const char *band, int32_t mode);

/* Callback of the connection to the daemon. */
void scan_result_cb(int32_t fd, int32_t event, void *arg);

/* Ends a scan without a word, for tests. */
void radio_scan_reset(void);
