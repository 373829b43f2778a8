/*
 * One step of "agentctl check", as it is found, reported and shown.
 */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "agent/owners.h"

/* Outcomes, as they stand in the JSON report. */
#define STEP_OK "ok"
#define STEP_WARNING "warning" /* worth knowing; the agent gets through all the same */
#define STEP_FAILED "failed"
#define STEP_UNSURE "unsure"   /* cannot be told without changing something */
#define STEP_SKIPPED "skipped" /* the agent does not go there */

struct check_step {
    std::string source; /* of the address, empty where the step belongs to none */
    std::string name;
    std::string outcome;
    std::string detail;
    double seconds = 0;
    json_ptr data; /* further facts, may be null */
};

using check_steps = std::vector<check_step>;

/* What a certificate step adds to its data. */
#define DATA_VALID_FROM "validFrom" /* seconds since the epoch */
#define DATA_VALID_TO "validTo"
/* And the onboarding step: the service's clock. */
#define DATA_SERVER_TIME "serverTime"

/* True when one of the steps has this outcome. */
bool any_step(const check_steps &steps, const char *outcome);
