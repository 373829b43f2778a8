/*
 * DA_STATE_DISCOVERY: finds the controller's URL and resolves its host; ends in connecting or back in idle.
 */
#pragma once

void enter_discovery(void);
