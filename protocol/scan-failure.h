/*
 * The failure of a radio scan that began well: told to whoever asked for it.
 */
#pragma once

#include <cstdint>

/* Where results and failures of scans go: 1 to the controller, 0 to the front end. */
extern int32_t orv_radio_scan;

/*
 * {"msgType": 711, "code": "BadRequest", "message": text}. A failure to send is logged or, without a
 * controller, means nothing any more.
 */
void send_scan_failure_msg(const char *text);
