#include "transfer/retry.h"

#include <cstring>

#include <sys/random.h>

#include "transfer/exit-statuses.h"
#include "transfer/say.h"
#include "transfer/stop.h"

void end_with(transfer_outcome *outcome, int exit_status, const std::string &reason)
{
    outcome->exit_status = exit_status;
    outcome->reason = presentable(reason, REASON_LIMIT);
}

void end_by_signal(transfer_outcome *outcome)
{
    end_with(outcome, TRANSFER_STOPPED + stop_signal(),
             std::string("stopped by a signal: ") + strsignal(stop_signal()));
}

bool wait_for_another_try(attempts *state, int64_t reached, int64_t retry_after, int64_t deadline,
                          const std::string &reason, transfer_outcome *outcome)
{
    uint32_t draw = 0;
    (void)!getrandom(&draw, sizeof(draw), GRND_NONBLOCK);
    int64_t wait = wait_after_failure(state, reached, retry_after);
    if (wait < 0) {
        end_with(outcome, TRANSFER_GAVE_UP, "given up: " + reason);
        return false;
    }
    wait = spread_wait(wait, draw);
    if (monotonic_ms() + wait >= deadline) {
        end_with(outcome, TRANSFER_GAVE_UP, "it takes too long: " + reason);
        return false;
    }
    say("%s; trying again in %.1f s", presentable(reason, LINE_LIMIT / 2).c_str(),
        static_cast<double>(wait) / 1000);
    if (stop_wait(wait) == 0)
        return true;
    end_by_signal(outcome);
    return false;
}
