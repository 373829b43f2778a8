/*
 * What a transfer has come to.
 */
#pragma once

#include <cstdint>
#include <string>

struct transfer_outcome {
    int exit_status = 0;  /* of exit-statuses.h */
    std::string reason;   /* for people, empty when it is done; up to REASON_LIMIT bytes of UTF-8, one line */
    long http_status = 0; /* of the last answer, 0 when there was none */
    int64_t bytes = 0;    /* that have been transferred, as they lie in the file */
    int64_t seconds = 0;  /* that it took */
};

enum { REASON_LIMIT = 400 };
