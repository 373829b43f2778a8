/*
 * DA_STATE_DISCONNECTED: the one place where a connection's leftovers go; ends in idle at once.
 */
#pragma once

void enter_disconnected(void);
