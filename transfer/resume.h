/*
 * Going on with an interrupted download: which answers bring the rest of the same file, and which do not. A
 * mixture of two files must never come about.
 */
#pragma once

#include <cstdint>
#include <string>

#include "transfer/answer.h"

/* What earlier tries have brought. */
struct partial_file {
    int64_t bytes = 0;  /* from the beginning */
    int64_t total = -1; /* of the whole file, -1 when the server did not tell */
    std::string
        validator; /* what tells this file from a changed one, for If-Range; empty when nothing does */
};

/* Whether the rest can be asked for at all: something is there, and a changed file would show. */
bool may_resume(const partial_file &part);

enum answer_verdict {
    TAKE_REST,  /* the body goes behind what is there */
    TAKE_WHOLE, /* the body is the file from its beginning: what is there goes */
    START_OVER, /* the body is of no use, nor is what is there: ask for the whole file */
    TRY_LATER,  /* a failure that may pass */
    REFUSE,     /* a failure for good */
};

/* Judges the answer to a request for the whole file or, where `asked_rest`, for the rest of `part`. `reason`
 * is set unless the body is to be taken. */
answer_verdict judge_answer(const answer &found, const partial_file &part, bool asked_rest,
                            std::string *reason);

/* The length of the whole file, as an answer with the rest of it tells. */
int64_t total_of_rest(const answer &found);

/*
 * What tells the file of this answer from a changed one: its strong ETag, or the time of its last change when
 * that lies far enough back that another change would show. Empty when there is neither.
 */
std::string validator_of(const answer &found);
