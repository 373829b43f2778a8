/*
 * A configuration daemon that answers what the test says and remembers what it was given.
 */
#pragma once

#include <functional>
#include <string>
#include <vector>

struct fake_scm {
    std::string config_error, native_error; /* empty: success */
    std::vector<std::string> calls;         /* "config overwrite=0 {...}", "native overwrite=1 none" */
    std::function<void(const std::string &)> during; /* called in each call with its text */
};

extern fake_scm scm;
