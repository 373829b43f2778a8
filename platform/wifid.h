/*
 * Messages to the local Wi-Fi daemon: one datagram each, the first byte says what it is for, JSON text
 * follows.
 */
#pragma once

#include <cstddef>
#include <cstdint>

#define TO_WIFID_SOCKET "/var/tmp/device_agent_to_wifid_msgs"

/* First byte of a datagram to the daemon. */
enum {
    WIFID_CONTROLLER_PAYLOAD = 0,
    WIFID_CONNECTED_UPDATE = 2,
};

/* The last state sent to the daemon: 1 the controller is connected, 0 not. */
extern int32_t controller_connected;

/* Sends one datagram without waiting. Returns 0, or -1 with a log line. */
int send_msg_to_wifid(const char *path, uint8_t dest, const char *text, size_t length);

/* Remembers and tells the daemon whether the controller is connected. */
void send_controller_connected_state_update_to_wifid(int32_t status);
