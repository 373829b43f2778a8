/*
 * DA_STATE_CONNECTED: the websocket is up; the agent registers once for each connection.
 */
#pragma once

void enter_connected(void);
