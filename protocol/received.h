/*
 * Messages from the controller, and from the front end, which has some in common: their types and the reading
 * of their members.
 */
#pragma once

#include <jansson.h>

/* The types that have a handler. */
enum {
    MSG_SW_UPGRADE_REQUEST = 101,
    MSG_REBOOT_CMD = 102,
    MSG_STATS_REQUEST = 103,
    MSG_STATS_ON_DEMAND_REQUEST = 104,
    MSG_STATS_STOP_REQUEST = 105,
    MSG_CONFIG_UPDATE_REQUEST = 106,
    MSG_CONFIG_PULL_REQUEST = 107,
    MSG_MANAGED_INFO = 108,
    MSG_EXEC_CMD = 109,
    MSG_EXEC_STOP = 110,
    MSG_RADIO_SCAN_REQUEST = 111,
    MSG_LATENCY_TEST = 112,
    MSG_TECH_SUPPORT_REQUEST = 113,
    MSG_TECH_SUPPORT_ABORT = 114,
    MSG_LOCATE_CMD = 115,
    MSG_INTVL_UPDATE_CMD_REQUEST = 117,
    MSG_LINK_TEST_REQUEST = 119,
    MSG_STATS_INFO_REQUEST = 122,
    MSG_DEV_INFO_REQUEST = 123,
    MSG_STATS_CUSTOM_REQUEST = 124,
    MSG_REGISTER_SUCCESS = 400,
    MSG_CONTROLLER_RSP = 416,
    MSG_ORVANTA_CONNECT_STATUS = 697,
    MSG_REGISTER_FAILED = 700,
};

/* The text of a member, empty when it is absent or no text. Owned by the object. */
inline const char *received_text(const json_t *object, const char *key)
{
    const char *text = json_string_value(json_object_get(object, key));
    return text ? text : "";
}
