/*
 * Entering a connection state. The entry actions stand in agent/state-*.cpp; the wiring puts them into
 * hooks.state_entry, one for each state.
 */
#pragma once

#include <cstdint>

/*
 * Stores the new state in da.state and runs its entry action, which may enter a further state itself. A state
 * outside 0..4 ends the process.
 */
void da_enter_state(int32_t new_state);
