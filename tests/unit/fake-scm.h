/*
 * A configuration daemon that answers what the test says and remembers what it was given.
 */
#pragma once

#include <functional>
#include <string>
#include <vector>

struct fake_scm {
    std::string config_error, native_error;          /* empty: success */
    int set_result = 0;                              /* of setting an item */
    std::string reply;                               /* to a message of one's own; empty: none */
    std::vector<std::string> calls;                  /* "config overwrite=0 {...}", "native overwrite=1 none",
                                                        "set NAME=VALUE", "send MESSAGE" */
    std::function<void(const std::string &)> during; /* called in each call with its text */
};

extern fake_scm scm;
