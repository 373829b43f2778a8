/*
 * What the Wi-Fi daemon has to say: one datagram each, the first byte tells what it is for, JSON text
 * follows. Payloads go to the controller (protocol/wifid-payload.h); a registration waits with the daemon
 * until the controller is connected.
 */
#pragma once

#include <cstdint>

#define FROM_WIFID_SOCKET "/var/tmp/wifid_to_device_agent_msgs"

enum {
    WIFID_DATAGRAM_LENGTH = 2047, /* bytes that are read; what is longer is cut, and so is no JSON any more */

    /* First byte of a datagram from the daemon. */
    WIFID_PAYLOAD = 1,
    WIFID_REGISTRATION = 2,
};

/* Opens the socket and listens. Without it the agent is of no use to the daemon: a failure ends the process.
 */
void device_agent_msg_from_wifid_callback_init(void);

/* Receives one datagram. What cannot be used is logged and dropped. */
void wifid_msg_rx_cb(int32_t fd, int32_t event, void *arg);
