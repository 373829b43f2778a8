#include "transfer/upload.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

#include "transfer/answer.h"
#include "transfer/exit-statuses.h"
#include "transfer/retry.h"
#include "transfer/say.h"
#include "transfer/session.h"
#include "transfer/stop.h"

enum {
    WORDS_LIMIT = 1024,      /* bytes kept of what the server says */
    BODY_LIMIT = 256 * 1024, /* bytes of it that are waited for */
};

/* The file that is sent. */
struct upload_file_state {
    int fd = -1;
    int64_t size = 0;
};

/* One try, as libcurl's callbacks see it. */
struct upload_try {
    const upload_file_state *file;
    int64_t offset = 0; /* of the next byte to be sent */
    answer found;
    int64_t header_bytes = 0;
    int64_t body_bytes = 0;
    std::string words;     /* the beginning of what the server says */
    std::string reason;    /* why the try fails, where libcurl does not know */
    int local_failure = 0; /* errno of the file */
};

static bool is_good(int status) { return status >= 200 && status < 300; }

/* ---- libcurl's callbacks ---- */

static size_t give_bytes(char *buffer, size_t, size_t room, void *argument)
{
    auto *each = static_cast<upload_try *>(argument);
    int64_t left = each->file->size - each->offset;
    ssize_t count = pread(each->file->fd, buffer, std::min(room, static_cast<size_t>(left)), each->offset);
    if (count < 0 || (count == 0 && left > 0)) { /* it cannot be read, or has become shorter */
        each->local_failure = count < 0 ? errno : ENODATA;
        return CURL_READFUNC_ABORT;
    }
    each->offset += count;
    return static_cast<size_t>(count);
}

/* For a redirect, or a connection that died before the server took anything: from the beginning. */
static int go_to(void *argument, curl_off_t offset, int origin)
{
    auto *each = static_cast<upload_try *>(argument);
    if (origin != SEEK_SET || offset < 0 || offset > each->file->size)
        return CURL_SEEKFUNC_CANTSEEK;
    each->offset = offset;
    return CURL_SEEKFUNC_OK;
}

/* Only 307 and 308 say that the same request is to be made elsewhere; the others would turn the PUT into
 * something else. */
static bool is_acceptable_redirect(const answer &found)
{
    return !answer_is_redirect(found) || found.status == 307 || found.status == 308;
}

static size_t take_header_line(char *line, size_t, size_t length, void *argument)
{
    auto *each = static_cast<upload_try *>(argument);
    each->header_bytes += static_cast<int64_t>(length);
    if (each->header_bytes > HEADERS_LIMIT) {
        each->reason = "the server sends headers without end";
        return 0;
    }
    if (answer_take_line(&each->found, line, length) && !is_acceptable_redirect(each->found))
        return 0;
    return length;
}

static size_t take_words(char *bytes, size_t, size_t count, void *argument)
{
    auto *each = static_cast<upload_try *>(argument);
    size_t room = WORDS_LIMIT - each->words.size();
    each->words.append(bytes, std::min(count, room));
    each->body_bytes += static_cast<int64_t>(count);
    return each->body_bytes > BODY_LIMIT ? 0 : count;
}

/* ---- one try ---- */

static bool set_headers(CURL *transfer, const upload_request &request, curl_list_ptr *headers)
{
    if (session_header(headers, "Expect:") != 0) /* the body is sent without asking */
        return false;
    if (*request.content_type &&
        session_header(headers, std::string("Content-Type: ") + request.content_type) != 0)
        return false;
    return curl_easy_setopt(transfer, CURLOPT_HTTPHEADER, headers->get()) == CURLE_OK;
}

static bool set_up(CURL *transfer, const upload_request &request, upload_try *each, curl_list_ptr *headers)
{
    return set_headers(transfer, request, headers) &&
           curl_easy_setopt(transfer, CURLOPT_UPLOAD, 1L) == CURLE_OK &&
           curl_easy_setopt(transfer, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(each->file->size)) ==
               CURLE_OK &&
           curl_easy_setopt(transfer, CURLOPT_READFUNCTION, give_bytes) == CURLE_OK &&
           curl_easy_setopt(transfer, CURLOPT_READDATA, each) == CURLE_OK &&
           curl_easy_setopt(transfer, CURLOPT_SEEKFUNCTION, go_to) == CURLE_OK &&
           curl_easy_setopt(transfer, CURLOPT_SEEKDATA, each) == CURLE_OK &&
           curl_easy_setopt(transfer, CURLOPT_HEADERFUNCTION, take_header_line) == CURLE_OK &&
           curl_easy_setopt(transfer, CURLOPT_HEADERDATA, each) == CURLE_OK &&
           curl_easy_setopt(transfer, CURLOPT_WRITEFUNCTION, take_words) == CURLE_OK &&
           curl_easy_setopt(transfer, CURLOPT_WRITEDATA, each) == CURLE_OK;
}

/* What a failed try means. Returns true when another one may help; otherwise the outcome is filled in. */
static bool may_try_again(CURLcode result, upload_try *each, const char *error, transfer_outcome *outcome)
{
    if (stop_signal() != 0) {
        end_by_signal(outcome);
        return false;
    }
    if (each->local_failure != 0) {
        end_with(outcome, TRANSFER_LOCAL,
                 each->local_failure == ENODATA
                     ? "the file has become shorter"
                     : std::string("the file cannot be read: ") + strerror(each->local_failure));
        return false;
    }
    if (int final_status = session_final_status(result)) {
        end_with(outcome, final_status, session_reason(result, error, answer_is_redirect(each->found)));
        return false;
    }
    bool lost_on_the_way = result != CURLE_OK && answer_is_redirect(each->found) &&
                           is_acceptable_redirect(each->found); /* the place it was sent on to failed */
    if (each->found.status >= 300 && !lost_on_the_way) {
        each->reason = "the server answers " + each->found.status_text;
        if (!each->words.empty())
            say("the server says: %s", presentable(each->words, LINE_LIMIT - 30).c_str());
        if (answer_is_temporary(each->found.status))
            return true;
        end_with(outcome, TRANSFER_REFUSED, each->reason);
        return false;
    }
    if (each->reason.empty())
        each->reason = result == CURLE_OK ? "the server answered before it had the file"
                                          : session_reason(result, error, answer_is_redirect(each->found));
    return true;
}

/* Returns true when the outcome is decided. */
static bool try_once(const upload_request &request, const upload_file_state &file, attempts *state,
                     int64_t deadline, transfer_outcome *outcome)
{
    char error[CURL_ERROR_SIZE];
    upload_try each = {};
    each.file = &file;
    curl_list_ptr headers;
    curl_ptr transfer = session_make(request.url, error);
    CURLcode result = CURLE_OUT_OF_MEMORY;
    if (transfer && set_up(transfer.get(), request, &each, &headers))
        result = session_run(transfer.get(), deadline);
    outcome->http_status = each.found.status;
    outcome->bytes = each.offset;
    if (is_good(each.found.status) && each.offset == file.size && result == CURLE_OK)
        return true;
    if (!may_try_again(result, &each, error, outcome))
        return true;
    curl_off_t retry_after = 0;
    (void)curl_easy_getinfo(transfer.get(), CURLINFO_RETRY_AFTER, &retry_after);
    transfer.reset(); /* no connection is held over the pause */
    return !wait_for_another_try(state, 0, retry_after, deadline, each.reason, outcome);
}

/* ---- the whole ---- */

/* Returns 0, or -1 with errno: what is no plain file is refused, for a pipe would wait for its writer. */
static int open_file(const char *path, upload_file_state *file)
{
    file->fd = open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    struct stat status;
    if (file->fd < 0 || fstat(file->fd, &status) != 0)
        return -1;
    if (!S_ISREG(status.st_mode)) {
        errno = EINVAL;
        return -1;
    }
    file->size = status.st_size;
    return 0;
}

static void send_file(const upload_request &request, const upload_file_state &file, transfer_outcome *outcome)
{
    int64_t deadline = monotonic_ms() + static_cast<int64_t>(UPLOAD_SECONDS) * 1000;
    attempts state;
    say("uploading %lld bytes to %s", static_cast<long long>(file.size), url_for_people(request.url).c_str());
    while (!try_once(request, file, &state, deadline, outcome)) {
    }
}

transfer_outcome upload_file(const upload_request &request)
{
    transfer_outcome outcome;
    int64_t begun = monotonic_ms();
    upload_file_state file;
    if (open_file(request.path, &file) == 0)
        send_file(request, file, &outcome);
    else
        end_with(&outcome, TRANSFER_LOCAL, std::string("the file cannot be read: ") + strerror(errno));
    fd_guard closed(file.fd);
    outcome.seconds = (monotonic_ms() - begun + 999) / 1000;
    return outcome;
}

const char *content_type_complaint(const char *content_type)
{
    enum { CONTENT_TYPE_LIMIT = 255 };
    if (strlen(content_type) > CONTENT_TYPE_LIMIT)
        return "the content type is too long";
    for (const char *at = content_type; *at; at++)
        if (*at < 0x20 || *at > 0x7E)
            return "the content type holds what may not stand in a header";
    return nullptr;
}
