/*
 * Runs the way of one source in a child and holds it to its time: each step has its own limit, whatever
 * blocks in it.
 */
#pragma once

#include "agentctl/check-step.h"
#include "agentctl/sources.h"

/* Milliseconds on a clock that only runs forward. */
int64_t milliseconds_now(void);

/*
 * Goes the way of a source until it ends, or until `deadline` (of milliseconds_now()). `show` is told each
 * step as it ends. Appends the steps.
 */
void run_way(const address_source &source, int64_t deadline, check_steps *steps,
             void (*show)(const check_step &step));

/* The limit of a step in milliseconds. */
int64_t step_limit(const std::string &name);
