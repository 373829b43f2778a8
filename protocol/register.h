/*
 * REGISTER: how the device introduces itself to the controller, and the controller's answer.
 */
#pragma once

#include <cstdint>

#include <jansson.h>

/* Builds and queues REGISTER. Returns what write_to_orv returns, or -1 when it cannot be serialised. */
int build_and_send_register(void);

/*
 * Reads an answer, 400 (accepted: the device without NTP takes the controller's time) or 700 (refused:
 * logged). Returns 0, or BAD_REQUEST with the error text set when a 700 has no object.
 */
int parse_register_response(int32_t msgType, const json_t *obj, char *error_text);
