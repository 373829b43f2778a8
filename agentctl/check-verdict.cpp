#include "agentctl/check-verdict.h"

#include <algorithm>

#include "agentctl/check-way.h"
#include "agentctl/output.h"

static const int64_t CLOCK_FLOOR = 1577836800; /* 2020-01-01: no device of ours is older */
static const int64_t CLOCK_TOLERANCE = 300;    /* seconds */

bool any_step(const check_steps &steps, const char *outcome)
{
    return std::any_of(steps.begin(), steps.end(),
                       [&](const check_step &step) { return step.outcome == outcome; });
}

static bool is_passed(const check_step &step)
{
    return step.outcome == STEP_OK || step.outcome == STEP_WARNING;
}

way_result judge_way(const check_steps &steps, const char *source)
{
    way_result result;
    for (const check_step &step : steps) {
        if (step.source != source)
            continue;
        if (step.name == STEP_ONBOARDING)
            result.onboarded = is_passed(step);
        if (step.name == STEP_LAST)
            result.open = is_passed(step);
        result.unsure = result.unsure || step.outcome == STEP_UNSURE;
    }
    return result;
}

/* A member of a step's data as a number, 0 when it is not there. */
static int64_t fact(const check_step &step, const char *name)
{
    return json_integer_value(json_object_get(step.data.get(), name));
}

static check_step clock_step(const char *outcome, const std::string &detail)
{
    check_step step;
    step.name = "clock";
    step.outcome = outcome;
    step.detail = detail;
    return step;
}

check_step judge_clock(const check_steps &steps, int64_t now)
{
    std::string shown = time_text(now, now);
    shown = shown.substr(0, shown.find(" ("));
    if (now < CLOCK_FLOOR)
        return clock_step(STEP_WARNING, "it is not set: " + shown);
    bool compared = false;
    for (const check_step &step : steps) {
        int64_t server = fact(step, DATA_SERVER_TIME);
        int64_t first = fact(step, DATA_VALID_FROM);
        int64_t last = fact(step, DATA_VALID_TO);
        if (first > now)
            return clock_step(STEP_WARNING, shown + ", it is behind: a certificate becomes valid in " +
                                                duration_text(first - now));
        if (server != 0 && std::max(server - now, now - server) > CLOCK_TOLERANCE)
            return clock_step(STEP_WARNING, shown + ", the onboarding service's is " +
                                                duration_text(std::max(server - now, now - server)) +
                                                (server > now ? " ahead" : " behind"));
        if (last != 0 && last < now)
            return clock_step(STEP_WARNING, shown + ", it is ahead, or a certificate has expired " +
                                                duration_text(now - last) + " ago");
        compared = compared || server != 0 || first != 0;
    }
    return compared ? clock_step(STEP_OK, shown + " agrees with what the servers show")
                    : clock_step(STEP_UNSURE, shown + ", there was nothing to compare it with");
}
