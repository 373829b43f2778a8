/*
 * What the steps of a check come to.
 */
#pragma once

#include <cstdint>

#include "agentctl/check-step.h"

/* The last step of a way that is open. */
#define STEP_LAST "controller certificate"

/* How far the way of a source went. */
struct way_result {
    bool onboarded = false; /* the onboarding led to a controller: no later source is asked */
    bool open = false;      /* up to the controller's certificate */
    bool unsure = false;    /* stopped where it cannot be told */
};

/* From the steps of one source. */
way_result judge_way(const check_steps &steps, const char *source);

/*
 * The step "clock": this device's clock at `now` against the certificates and the answers that were seen.
 * Never a failure: the agent tolerates a clock that is behind, and what it does not tolerate has failed
 * already.
 */
check_step judge_clock(const check_steps &steps, int64_t now);
