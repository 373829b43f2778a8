#include "transfer/attempts.h"

#include <algorithm>

int64_t wait_after_failure(attempts *state, int64_t reached, int64_t retry_after)
{
    if (reached >= state->best + STEP_FORWARD) {
        state->best = reached;
        state->vain = 0;
    } else {
        state->vain++;
    }
    if (state->vain >= VAIN_ATTEMPTS)
        return -1;
    int doublings = std::max(state->vain - 1, 0);
    int64_t wait = std::min<int64_t>(static_cast<int64_t>(FIRST_WAIT_MS) << doublings, LONGEST_WAIT_MS);
    int64_t asked = std::clamp<int64_t>(retry_after, 0, LONGEST_RETRY_AFTER) * 1000;
    return std::max(wait, asked);
}

int64_t spread_wait(int64_t milliseconds, uint32_t draw)
{
    return milliseconds + static_cast<int64_t>(draw % (static_cast<uint64_t>(milliseconds) / 4 + 1));
}
