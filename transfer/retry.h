/*
 * The pause between two tries of a transfer, told and spread.
 */
#pragma once

#include <cstdint>
#include <string>

#include "transfer/attempts.h"
#include "transfer/outcome.h"

/*
 * A try has failed for `reason` when the transfer had come to `reached` bytes. Waits before the next one, or
 * fills in how the program ends: given up (too many in vain, or the deadline comes first) or stopped. Returns
 * true when there is to be another try.
 */
bool wait_for_another_try(attempts *state, int64_t reached, int64_t retry_after, int64_t deadline,
                          const std::string &reason, transfer_outcome *outcome);

/* Ends the outcome with a status and its reason. */
void end_with(transfer_outcome *outcome, int exit_status, const std::string &reason);

/* Ends it as a signal to stop does; that signal has come. */
void end_by_signal(transfer_outcome *outcome);
