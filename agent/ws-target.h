/*
 * Where the controller is: written by discovery, read when connecting and when certificates are checked.
 */
#pragma once

#include <cstdint>

struct websocket_target {
    char host[256];
    int32_t port;
    char path[256]; /* with query */
};
extern websocket_target ws_target;
