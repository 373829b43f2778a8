#include "transfer/resume.h"

#include <gtest/gtest.h>

#include "transfer/attempts.h"
#include "transfer/exit-statuses.h"
#include "transfer/retry.h"
#include "transfer/stop.h"

/* A good answer with the rest of a file of 1000 bytes from 300 on. */
static answer rest_answer(void)
{
    answer found;
    found.status = 206;
    found.status_text = "206 Partial Content";
    found.length = 700;
    found.etag = "\"v1\"";
    found.content_range = "bytes 300-999/1000";
    return found;
}

static answer whole_answer(void)
{
    answer found;
    found.status = 200;
    found.status_text = "200 OK";
    found.length = 1000;
    found.etag = "\"v1\"";
    return found;
}

static const partial_file part = {300, 1000, "\"v1\""};

static answer_verdict verdict_of(const answer &found, bool asked_rest = true, const partial_file &have = part)
{
    std::string reason;
    answer_verdict verdict = judge_answer(found, have, asked_rest, &reason);
    EXPECT_EQ(reason.empty(), verdict == TAKE_REST || verdict == TAKE_WHOLE) << reason;
    return verdict;
}

TEST(transfer_resume, only_what_can_be_told_from_a_changed_file_is_resumed)
{
    EXPECT_TRUE(may_resume(part));
    EXPECT_FALSE(may_resume({0, 1000, "\"v1\""}));
    EXPECT_FALSE(may_resume({300, 1000, ""}));
}

TEST(transfer_resume, the_rest_of_the_same_file_is_taken)
{
    EXPECT_EQ(verdict_of(rest_answer()), TAKE_REST);
    answer found = rest_answer();
    found.length = -1; /* in chunks */
    found.chunked = true;
    EXPECT_EQ(verdict_of(found), TAKE_REST);
    found = rest_answer();
    found.etag = "";
    EXPECT_EQ(verdict_of(found), TAKE_REST) << "it heeded If-Range";
    found = rest_answer();
    found.content_range = "bytes 300-499/1000";
    found.length = 200;
    EXPECT_EQ(verdict_of(found), TAKE_REST) << "a shorter part is a part";
    EXPECT_EQ(verdict_of(rest_answer(), true, {300, -1, "\"v1\""}), TAKE_REST) << "first sent in chunks";
    EXPECT_EQ(total_of_rest(rest_answer()), 1000) << "which is news then";
}

TEST(transfer_resume, any_other_part_makes_it_start_over)
{
    for (const char *range : {"bytes 299-999/1000", "bytes 301-999/1000", "bytes 300-999/1001",
                              "bytes 300-998/999", "bytes 300-999/*", "", "bytes 0-999/1000"}) {
        answer found = rest_answer();
        found.length = -1;
        found.content_range = range;
        EXPECT_EQ(verdict_of(found), START_OVER) << range;
    }
    answer found = rest_answer();
    found.length = 699;
    EXPECT_EQ(verdict_of(found), START_OVER);
    found = rest_answer();
    found.etag = "\"v2\"";
    EXPECT_EQ(verdict_of(found), START_OVER);
    found.etag = "W/\"v1\"";
    EXPECT_EQ(verdict_of(found), START_OVER) << "a weak one says nothing about bytes";
}

TEST(transfer_resume, a_part_that_nobody_asked_for_is_refused)
{
    EXPECT_EQ(verdict_of(rest_answer(), false, {}), REFUSE);
}

TEST(transfer_resume, the_whole_file_is_taken_from_its_beginning)
{
    EXPECT_EQ(verdict_of(whole_answer()), TAKE_WHOLE) << "it ignores ranges, or the file has changed";
    EXPECT_EQ(verdict_of(whole_answer(), false, {}), TAKE_WHOLE);
    answer found = whole_answer();
    found.length = -1;
    EXPECT_EQ(verdict_of(found), REFUSE) << "nobody could tell whether it is complete";
    found.chunked = true;
    EXPECT_EQ(verdict_of(found), TAKE_WHOLE);
    found = whole_answer();
    found.length = 0;
    EXPECT_EQ(verdict_of(found), REFUSE);
}

TEST(transfer_resume, what_cannot_be_right_is_refused)
{
    for (answer found : {whole_answer(), rest_answer()}) {
        found.contradicts = true;
        EXPECT_EQ(verdict_of(found), REFUSE);
        found.contradicts = false;
        found.coded = true;
        EXPECT_EQ(verdict_of(found), REFUSE);
    }
}

TEST(transfer_resume, other_answers_pass_or_are_final)
{
    answer found;
    for (int status : {500, 503, 408, 425, 429}) {
        found.status = status;
        EXPECT_EQ(verdict_of(found), TRY_LATER) << status;
    }
    for (int status : {0, 201, 204, 304, 400, 401, 403, 404, 410}) {
        found.status = status;
        EXPECT_EQ(verdict_of(found), REFUSE) << status;
    }
    found.status = 416;
    EXPECT_EQ(verdict_of(found), START_OVER);
    EXPECT_EQ(verdict_of(found, false, {}), REFUSE);
}

TEST(transfer_resume, validators)
{
    answer found = whole_answer();
    EXPECT_EQ(validator_of(found), "\"v1\"");
    for (const char *etag : {"W/\"v1\"", "v1", "\"", "\"v1"}) {
        found.etag = etag;
        EXPECT_EQ(validator_of(found), "") << etag;
    }
    found.etag = "";
    EXPECT_EQ(validator_of(found), "");
    found.last_modified = "Fri, 20 Nov 2026 09:00:00 GMT";
    EXPECT_EQ(validator_of(found), "") << "without a Date";
    found.date = "Fri, 20 Nov 2026 09:00:59 GMT";
    EXPECT_EQ(validator_of(found), "") << "it may change again within the same second";
    found.date = "Fri, 20 Nov 2026 09:01:00 GMT";
    EXPECT_EQ(validator_of(found), found.last_modified);
    found.last_modified = "some day";
    EXPECT_EQ(validator_of(found), "");
    found.last_modified = "Fri, 20 Nov 2026 09:00:00 GMT";
    found.etag = "W/\"v1\"";
    EXPECT_EQ(validator_of(found), "") << "a weak ETag says that bytes may differ";
}

/* ---- attempts ---- */

TEST(transfer_attempts, patience_doubles_up_to_a_minute_and_ends_with_the_tenth)
{
    attempts state;
    for (int64_t seconds : {1, 2, 4, 8, 16, 32, 60, 60, 60})
        EXPECT_EQ(wait_after_failure(&state, 0, 0), seconds * 1000);
    EXPECT_EQ(wait_after_failure(&state, 0, 0), -1);
}

TEST(transfer_attempts, a_step_forward_begins_the_count_anew)
{
    attempts state;
    for (int i = 0; i < 9; i++)
        EXPECT_GT(wait_after_failure(&state, STEP_FORWARD - 1, 0), 0);
    EXPECT_EQ(wait_after_failure(&state, STEP_FORWARD, 0), 1000);
    EXPECT_EQ(wait_after_failure(&state, STEP_FORWARD, 0), 1000);
    EXPECT_EQ(wait_after_failure(&state, 2 * STEP_FORWARD - 1, 0), 2000) << "a few bytes are no step";
    EXPECT_EQ(wait_after_failure(&state, 2 * STEP_FORWARD, 0), 1000);
}

TEST(transfer_attempts, a_file_that_starts_over_is_no_step_forward)
{
    attempts state;
    int tries = 1;
    for (; wait_after_failure(&state, 10 * STEP_FORWARD, 0) > 0; tries++)
        ASSERT_LT(tries, 100);
    EXPECT_EQ(tries, 1 + VAIN_ATTEMPTS);
}

TEST(transfer_attempts, the_server_may_ask_for_more_time_but_not_for_ever)
{
    attempts state;
    EXPECT_EQ(wait_after_failure(&state, 0, 7), 7000);
    EXPECT_EQ(wait_after_failure(&state, 0, 1), 2000);
    EXPECT_EQ(wait_after_failure(&state, 0, INT64_MAX), 300000);
    EXPECT_EQ(wait_after_failure(&state, 0, INT64_MIN), 8000);
}

TEST(transfer_attempts, waits_are_spread_by_up_to_a_quarter)
{
    EXPECT_EQ(spread_wait(1000, 0), 1000);
    EXPECT_EQ(spread_wait(1000, 250), 1250);
    EXPECT_EQ(spread_wait(1000, 251), 1000);
    for (uint32_t draw : {1u, 77u, 123456u, UINT32_MAX})
        EXPECT_TRUE(spread_wait(60000, draw) >= 60000 && spread_wait(60000, draw) <= 75000);
}

TEST(transfer_attempts, a_wait_beyond_the_deadline_is_not_begun)
{
    attempts state;
    transfer_outcome outcome;
    int64_t begun = monotonic_ms();
    EXPECT_FALSE(wait_for_another_try(&state, 0, 3, begun + 2900, "the server answers 503", &outcome));
    EXPECT_LT(monotonic_ms() - begun, 2900);
    EXPECT_EQ(outcome.exit_status, TRANSFER_GAVE_UP);
    EXPECT_EQ(outcome.reason, "it takes too long: the server answers 503");
}
