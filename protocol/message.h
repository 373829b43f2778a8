/*
 * Messages to the controller: one JSON object each, "msgType" first (but for the Wi-Fi daemon's, see
 * protocol/wifid-payload.h), members in the order in which they were added, the serialiser's default
 * separators.
 */
#pragma once

#include <cstdint>

#include "agent/owners.h"

/* Message types that the agent sends. Replies to request N are N+300 on success or progress, N+600 on
 * failure. */
enum {
    MSG_REGISTER = 100,
    MSG_FROM_WIFID = 116,          /* a payload of the Wi-Fi daemon */
    MSG_REGISTER_FROM_WIFID = 118, /* its registration */
    MSG_SW_UPGRADE_RSP = 401,
    MSG_REBOOT_RSP = 402,
    MSG_STATS = 403,
    MSG_STATS_ON_DEMAND_RSP = 404,
    MSG_CONFIG_UPDATE_RSP = 406,
    MSG_CONFIG_PULL_RSP = 407,
    MSG_MANAGED_INFO_RSP = 408,
    MSG_EXEC_CMD_RSP = 409,
    MSG_EXEC_STOP_RSP = 410,
    MSG_RADIO_SCAN_RSP = 411,
    MSG_LATENCY_TEST_RSP = 412,
    MSG_TECH_SUPPORT_RSP = 414, /* an upload was stopped */
    MSG_LOCATE_RSP = 415,
    MSG_STATS_INFO_RSP = 422,
    MSG_DEV_INFO_RSP = 423,
    MSG_STATS_CUSTOM_RSP = 424,
    MSG_CONFIG_CHANGED = 698,
    MSG_TRAP = 699,
    MSG_SW_UPGRADE_FAILURE = 701,
    MSG_EXEC_CMD_FAILURE = 709,
    MSG_EXEC_STOP_FAILURE = 710,
    MSG_RADIO_SCAN_FAILURE = 711,
    MSG_TECH_SUPPORT_ABORT_FAILURE = 714,
    MSG_FAILURE = 999, /* answers a message whose type could not be read */
};

/* A new message of this type. */
json_ptr new_message(int32_t msgType);

/* Adds a member at the end. A text from outside becomes valid UTF-8 on the way; null counts as empty. */
void add_text(const json_ptr &object, const char *key, const char *text);
void add_integer(const json_ptr &object, const char *key, int64_t value);

/* The message as text; null, with a log line that names the sender, when it cannot be serialised. */
malloc_text dump_message(const json_ptr &message, const char *sender);

/* Queues the text. Returns what write_to_orv returns, -1 for a null text. */
int queue_text(const malloc_text &text);

/* The failure reply: {"msgType": .., "code": the status' name, "message": ..}. A status out of range counts
 * as 1. */
int send_failure_msg(int32_t msgType, int status, const char *message);

/* The bare success reply: {"msgType": ..}. */
int send_success_msg(int32_t msgType);
