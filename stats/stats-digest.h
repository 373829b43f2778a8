/*
 * Turns an answer of the statistics daemon into the text of a report. A large one takes JSON's reader and
 * writer longer than the loop may stand still (a hundred milliseconds to a second for 4 MiB), so a child does
 * it while the loop goes on.
 */
#pragma once

#include <cstddef>
#include <cstdint>

#include "agent/owners.h"

enum {
    DIGEST_IN_PLACE = 64 * 1024, /* bytes: shorter answers take some milliseconds and no child */
    DIGEST_LIMIT = 60,           /* seconds for a child on a slow device, then it is killed */
};

struct digest {
    enum { REPORT, NO_JSON, LOST } outcome; /* LOST: memory is short, or the child did not make it */
    int32_t periodic;                       /* of a report, as the daemon echoed it */
    malloc_text text;                       /* of a report */
};

/*
 * Digests an answer of `length` bytes; `done` is told once: before this returns for a short answer, from the
 * loop for a longer one. Not to be called while one is under way.
 */
void digest_answer(malloc_text answer, size_t length, void (*done)(digest result));

/* Whether a child is at work. */
bool digest_under_way(void);

/* Ends the child, if there is one, without telling anyone; for tests. */
void digest_reset(void);
