/*
 * The way from one source of the address to the controller, gone with the agent's own functions, in a process
 * of its own: they block, and they keep state.
 */
#pragma once

#include "agentctl/sources.h"

/*
 * Goes the way and tells about it on `out`, one JSON object a line: {"begin": NAME} before each step, then
 * {"end": NAME, "outcome": ..., "detail": ..., "data": {...}}. The first step that is not passed ends it.
 */
void go_the_way(const address_source &source, int out);

/* The step that a failure of which leads on to the next source, where the source is not final: all of the
 * steps up to this one. */
#define STEP_ONBOARDING "onboarding"
