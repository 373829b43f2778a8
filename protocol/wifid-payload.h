/*
 * Payloads of the Wi-Fi daemon on their way to the controller, and the controller's answers on their way
 * back. What is inside is the business of these two: any JSON value passes through unchanged, its members in
 * their order.
 */
#pragma once

#include <jansson.h>

/*
 * Wrap a payload for the controller: {"sessId", "ap_mac", "msgType": 116, "ctrlrPayload"}, and for a
 * registration {"sessId", "ap_mac", "type", "msgType": 118, "ctrlrPayload"}, in this order. The payload stays
 * the caller's. Return what write_to_orv returns, -1 when the message cannot be built.
 */
int msg_to_controller(json_t *payload);
int register_msg_to_controller(json_t *payload);

/*
 * Hands the "ctrlrPayload" of a controller's answer (416) to the daemon. Returns 0, or -1 with a log line
 * when there is none, when it cannot be serialised or the daemon does not take it.
 */
int handle_controller_rsp(const json_t *message);
