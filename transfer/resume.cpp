#include "transfer/resume.h"

#include <curl/curl.h>

enum { SETTLED_SECONDS = 60 }; /* a change within the same second would not show in the time of change */

bool may_resume(const partial_file &part) { return part.bytes > 0 && !part.validator.empty(); }

static bool is_strong_etag(const std::string &etag)
{
    return etag.size() >= 2 && etag.front() == '"' && etag.back() == '"';
}

std::string validator_of(const answer &found)
{
    if (is_strong_etag(found.etag))
        return found.etag;
    if (!found.etag.empty() || found.last_modified.empty() || found.date.empty())
        return "";
    time_t changed = curl_getdate(found.last_modified.c_str(), nullptr);
    time_t now = curl_getdate(found.date.c_str(), nullptr);
    return changed >= 0 && now >= changed + SETTLED_SECONDS ? found.last_modified : "";
}

/* 206: a part that begins where ours ends, of exactly this file. It may stop short of the end: then the rest
 * is asked for again. */
static answer_verdict judge_rest(const answer &found, const partial_file &part, std::string *reason)
{
    int64_t first = 0;
    int64_t last = 0;
    int64_t total = 0;
    if (parse_content_range(found.content_range, &first, &last, &total) != 0) {
        *reason = "the server sends a part without saying which";
        return START_OVER;
    }
    if (first != part.bytes || (part.total >= 0 && total != part.total) ||
        (found.length >= 0 && found.length != last - first + 1)) {
        *reason = "the server sends another part than the one asked for";
        return START_OVER;
    }
    if (is_strong_etag(part.validator) && !found.etag.empty() && found.etag != part.validator) {
        *reason = "the file has changed on the server";
        return START_OVER;
    }
    return TAKE_REST;
}

int64_t total_of_rest(const answer &found)
{
    int64_t first = 0;
    int64_t last = 0;
    int64_t total = -1;
    return parse_content_range(found.content_range, &first, &last, &total) == 0 ? total : -1;
}

static answer_verdict judge_whole(const answer &found, std::string *reason)
{
    if (!found.chunked && found.length < 0) {
        *reason = "the server does not say how long the file is";
        return REFUSE;
    }
    if (!found.chunked && found.length == 0) {
        *reason = "the file is empty";
        return REFUSE;
    }
    return TAKE_WHOLE;
}

answer_verdict judge_answer(const answer &found, const partial_file &part, bool asked_rest,
                            std::string *reason)
{
    bool brings_bytes = found.status == 200 || found.status == 206;
    if (brings_bytes && (found.contradicts || found.coded)) {
        *reason = found.coded ? "the server encodes the file, which it was not asked to"
                              : "the server contradicts itself about the length";
        return REFUSE;
    }
    if (found.status == 200)
        return judge_whole(found, reason);
    if (found.status == 206 && asked_rest)
        return judge_rest(found, part, reason);
    *reason = "the server answers " + found.status_text;
    if (found.status == 416 && asked_rest)
        return START_OVER;
    return answer_is_temporary(found.status) ? TRY_LATER : REFUSE;
}
