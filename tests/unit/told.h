/*
 * What the controller was told by a connected agent of the tests.
 */
#pragma once

#include <string>
#include <vector>

#include "tests/unit/fake-lws.h"
#include "tests/unit/queued.h"

using texts = std::vector<std::string>;

/* What the controller was told since the last call: on the wire, then queued. */
inline texts take_told(void)
{
    texts told;
    for (const fake_frame &frame : library.wire)
        told.push_back(frame.payload);
    library.wire.clear();
    for (const std::string &message : take_queued())
        told.push_back(message);
    return told;
}

/* The one message of it. */
inline std::string take_one_told(void)
{
    texts told = take_told();
    return told.size() == 1 ? told[0] : "there are " + std::to_string(told.size()) + " messages";
}
