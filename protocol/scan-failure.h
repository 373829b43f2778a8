/*
 * The failure of a radio scan, told to whoever asked for it. (A request that the controller should not have
 * made is answered by the dispatcher instead, with a code of its own.)
 */
#pragma once

#include <cstdint>

/* Where the result or failure of the scan goes: 1 to the controller, 0 to the front end. */
extern int32_t orv_radio_scan;

/*
 * Sends {"msgType": 711, "code": "BadRequest", "message": text}. What cannot be sent, because whoever asked
 * is gone, is lost.
 */
void send_scan_failure_msg(const char *text);
