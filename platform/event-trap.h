/*
 * Events of local programs: each sends one datagram to the event socket, and the agent passes it to the
 * controller as it is. Reports of the firmware download program come the same way and stay here.
 */
#pragma once

#include <cstdint>

enum { EVENT_SIZE = 2048 }; /* bytes taken from a datagram; the rest of a longer one is lost */

/* What the download of a firmware has come to, in https_download_status. */
enum {
    DOWNLOAD_NONE = 0,
    DOWNLOAD_RUNNING = 1,
    DOWNLOAD_COMPLETE = 2, /* reported on the event socket, as is the next */
    DOWNLOAD_FAILED = 3,
};

extern int32_t https_download_status;

/*
 * Opens the event socket and watches it. Returns 0, or -1 with a log line: the agent then runs without
 * events.
 */
int platform_event_listener(void);

/* Where the event socket is. */
const char *platform_get_event_sock_path(void);

/* The socket's read callback: takes one datagram. An event is passed on whether or not the controller has
 * accepted the device; without a connection it is lost. */
void event_rx_cb(int32_t fd, int32_t event, void *arg);

/* Deals with what is waiting at the socket now, with a bound for programs that send without end. */
void take_waiting_events(void);

/* For tests: closes the socket. */
void event_listener_reset(void);
