/*
 * The device's tools, run as the agent asks for it or replaced by what the test says: wraps safe_system_run.
 */
#pragma once

#include <functional>
#include <string>
#include <vector>

enum { RUN_IT_REALLY = -2 };

struct fake_tools {
    std::vector<std::string> ran; /* path and arguments, with blanks between */
    /* Called with a run's words before it happens; its result is the run's, unless it is RUN_IT_REALLY. */
    std::function<int(const std::vector<std::string> &words)> instead;
};

extern fake_tools tools;
