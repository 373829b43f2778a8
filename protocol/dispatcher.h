/*
 * The single entry of everything the controller sends: one table from message type to handler.
 */
#pragma once

#include <cstddef>

/*
 * Handles one message. text[length] must be writable: it becomes the terminating NUL. Returns 0 or the
 * handler's status, -1 when the text is no JSON or has no "msgType". Every failure is answered to the
 * controller here.
 */
int handle_orv_msg(char *text, size_t length, void *user);
