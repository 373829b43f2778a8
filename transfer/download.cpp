#include "transfer/download.h"

#include <cerrno>
#include <cstring>

#include "transfer/exit-statuses.h"
#include "transfer/image-file.h"
#include "transfer/resume.h"
#include "transfer/retry.h"
#include "transfer/say.h"
#include "transfer/session.h"
#include "transfer/stop.h"

/* One try, as libcurl's callbacks see it. */
struct download_try {
    partial_file *part;
    bool asked_rest;
    answer found;
    int64_t header_bytes = 0;
    bool judged = false; /* the final answer's headers have ended */
    answer_verdict verdict = TRY_LATER;
    std::string reason;    /* why the try fails, where libcurl does not know */
    int local_failure = 0; /* errno of the image */
};

/* ---- progress ---- */

static int64_t told_at; /* when progress was told last */
static int64_t told_bytes;

static void tell_progress(const partial_file &part)
{
    enum { SHORTEST_MS = 1000, LONGEST_MS = 30000, PERCENT = 5 };
    int64_t now = monotonic_ms();
    bool far = part.total > 0 && part.bytes - told_bytes >= part.total / 100 * PERCENT;
    if (now - told_at < SHORTEST_MS || (!far && now - told_at < LONGEST_MS))
        return;
    told_at = now;
    told_bytes = part.bytes;
    if (part.total > 0)
        say("%lld of %lld bytes (%d %%)", static_cast<long long>(part.bytes),
            static_cast<long long>(part.total), static_cast<int>(part.bytes * 100 / part.total));
    else
        say("%lld bytes", static_cast<long long>(part.bytes));
}

/* ---- libcurl's callbacks; taking fewer bytes than there are ends the try ---- */

/* The image begins anew with this answer. */
static bool take_whole(download_try *each)
{
    if (each->part->bytes > 0) {
        say("starting over");
        if (image_restart() != 0) {
            each->local_failure = errno;
            return false;
        }
    }
    *each->part = {};
    each->part->total = each->found.chunked ? -1 : each->found.length;
    each->part->validator = validator_of(each->found);
    told_bytes = 0;
    return true;
}

/* The headers of the final answer have ended. False ends the try. */
static bool judge(download_try *each)
{
    each->judged = true;
    each->verdict = judge_answer(each->found, *each->part, each->asked_rest, &each->reason);
    if (each->verdict != TAKE_WHOLE && each->verdict != TAKE_REST)
        return false;
    if (each->verdict == TAKE_WHOLE && !take_whole(each))
        return false;
    if (each->verdict == TAKE_REST) /* the first answer may have come in chunks, without a length */
        each->part->total = total_of_rest(each->found);
    if (each->part->total < 0 || image_has_room(each->part->total - each->part->bytes))
        return true;
    each->local_failure = ENOSPC;
    return false;
}

static size_t take_header_line(char *line, size_t, size_t length, void *argument)
{
    auto *each = static_cast<download_try *>(argument);
    each->header_bytes += static_cast<int64_t>(length);
    if (each->header_bytes > HEADERS_LIMIT) {
        each->reason = "the server sends headers without end";
        return 0;
    }
    if (each->judged || !answer_take_line(&each->found, line, length)) /* behind a body come trailers */
        return length;
    if (answer_is_preliminary(each->found) || answer_is_redirect(each->found))
        return length;
    return judge(each) ? length : 0;
}

static size_t take_body(char *bytes, size_t, size_t count, void *argument)
{
    auto *each = static_cast<download_try *>(argument);
    if (!each->judged)
        return 0;
    if (image_append(bytes, count) != 0) {
        each->local_failure = errno;
        return 0;
    }
    each->part->bytes = image_size();
    tell_progress(*each->part);
    return count;
}

/* ---- one try ---- */

static bool set_up(CURL *transfer, download_try *each, curl_list_ptr *headers)
{
    if (each->asked_rest) {
        std::string range = std::to_string(each->part->bytes) + "-";
        if (curl_easy_setopt(transfer, CURLOPT_RANGE, range.c_str()) != CURLE_OK ||
            session_header(headers, "If-Range: " + each->part->validator) != 0)
            return false;
    }
    return curl_easy_setopt(transfer, CURLOPT_HTTPHEADER, headers->get()) == CURLE_OK &&
           curl_easy_setopt(transfer, CURLOPT_HEADERFUNCTION, take_header_line) == CURLE_OK &&
           curl_easy_setopt(transfer, CURLOPT_HEADERDATA, each) == CURLE_OK &&
           curl_easy_setopt(transfer, CURLOPT_WRITEFUNCTION, take_body) == CURLE_OK &&
           curl_easy_setopt(transfer, CURLOPT_WRITEDATA, each) == CURLE_OK;
}

/* The transfer has ended well: is the file whole? */
static bool is_whole(const partial_file &part)
{
    return part.bytes > 0 && (part.total < 0 || part.bytes == part.total);
}

static std::string local_words(int error)
{
    if (error == ENOSPC)
        return "no space for the image in /tmp";
    return std::string("the image cannot be written: ") + strerror(error);
}

/*
 * What a failed try means. Returns true when another one may help; otherwise the outcome is filled in.
 */
static bool may_try_again(CURLcode result, download_try *each, const char *error, transfer_outcome *outcome)
{
    if (stop_signal() != 0) {
        end_by_signal(outcome);
        return false;
    }
    if (each->local_failure != 0) {
        end_with(outcome, TRANSFER_LOCAL, local_words(each->local_failure));
        return false;
    }
    if (each->judged && each->verdict == REFUSE) {
        end_with(outcome, TRANSFER_REFUSED, each->reason);
        return false;
    }
    if (result == CURLE_OK && each->judged && each->part->bytes == 0) { /* in chunks, which told no length */
        end_with(outcome, TRANSFER_REFUSED, "the file is empty");
        return false;
    }
    if (each->reason.empty())
        each->reason = result == CURLE_OK ? "the server ended the file early"
                                          : session_reason(result, error, answer_is_redirect(each->found));
    int final_status = session_final_status(result);
    if (final_status == 0)
        return true;
    end_with(outcome, final_status, each->reason);
    return false;
}

/* A try that has failed with START_OVER leaves nothing that the next one could go on with. */
static void forget_what_is_there(partial_file *part)
{
    (void)image_restart();
    *part = {};
}

/* Returns true when the outcome is decided. */
static bool try_once(const char *url, partial_file *part, attempts *state, int64_t deadline,
                     transfer_outcome *outcome)
{
    char error[CURL_ERROR_SIZE];
    download_try each = {};
    each.part = part;
    each.asked_rest = may_resume(*part);
    curl_list_ptr headers;
    curl_ptr transfer = session_make(url, error);
    CURLcode result = CURLE_OUT_OF_MEMORY;
    if (transfer && set_up(transfer.get(), &each, &headers))
        result = session_run(transfer.get(), deadline);
    outcome->http_status = each.found.status;
    outcome->bytes = part->bytes;
    if (result == CURLE_OK && each.judged && is_whole(*part))
        return true;
    if (!may_try_again(result, &each, error, outcome))
        return true;
    curl_off_t retry_after = 0;
    (void)curl_easy_getinfo(transfer.get(), CURLINFO_RETRY_AFTER, &retry_after);
    transfer.reset(); /* no connection is held over the pause */
    int64_t reached = part->bytes;
    if (each.judged && each.verdict == START_OVER)
        forget_what_is_there(part);
    return !wait_for_another_try(state, reached, retry_after, deadline, each.reason, outcome);
}

/* ---- the whole ---- */

static void fetch(const char *url, transfer_outcome *outcome)
{
    int64_t deadline = monotonic_ms() + static_cast<int64_t>(DOWNLOAD_SECONDS) * 1000;
    partial_file part;
    attempts state;
    while (!try_once(url, &part, &state, deadline, outcome)) {
    }
    if (outcome->exit_status != TRANSFER_DONE)
        return;
    if (stop_signal() != 0)
        end_by_signal(outcome);
    else if (image_publish() != 0)
        end_with(outcome, TRANSFER_LOCAL, local_words(errno));
}

transfer_outcome download_image(const char *url)
{
    transfer_outcome outcome;
    int64_t begun = told_at = monotonic_ms();
    say("downloading %s", url_for_people(url).c_str());
    if (image_begin() == 0)
        fetch(url, &outcome);
    else
        end_with(&outcome, TRANSFER_LOCAL, local_words(errno));
    image_abandon();
    outcome.seconds = (monotonic_ms() - begun + 999) / 1000;
    return outcome;
}
