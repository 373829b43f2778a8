#include "transfer/report.h"

#include <cerrno>

#include <jansson.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "agent/local-socket.h"
#include "agent/owners.h"
#include "transfer/exit-statuses.h"
#include "transfer/say.h"
#include "transfer/stop.h"

enum {
    /* Bytes of texts in an event. The writer escapes quotes, so each may double; all fits into REPORT_LIMIT.
     */
    NAME_LIMIT = 200,
    DESCRIPTION_LIMIT = 250,
    PATIENCE_MS = 30000,
    STOPPED_PATIENCE_MS = 2000,
    AGAIN_MS = 100,
};

/* Compact, as the agent wants to see the first member, and in this order. */
static std::string as_text(const json_ptr &object)
{
    malloc_text text(object ? json_dumps(object.get(), JSON_COMPACT | JSON_PRESERVE_ORDER) : nullptr);
    return text ? text.get() : "";
}

static std::string done_words(const transfer_outcome &outcome)
{
    return std::to_string(outcome.bytes) + " bytes in " + std::to_string(outcome.seconds) + " s";
}

std::string download_report(const transfer_outcome &outcome)
{
    if (outcome.exit_status == TRANSFER_DONE)
        return as_text(json_ptr(json_pack("{s:i, s:s, s:s}", "msgType", 401, "status", "DownloadComplete",
                                          "message", done_words(outcome).c_str())));
    return as_text(json_ptr(json_pack("{s:i, s:s, s:s}", "msgType", 701, "code", "DownloadFailed", "message",
                                      presentable(outcome.reason, REASON_LIMIT).c_str())));
}

std::string upload_event(const transfer_outcome &outcome, const std::string &name, int64_t now)
{
    bool done = outcome.exit_status == TRANSFER_DONE;
    std::string reason = presentable(outcome.reason, REASON_LIMIT);
    std::string shown = presentable(name, NAME_LIMIT);
    std::string words =
        done ? "Uploaded " + shown + ": " + done_words(outcome) : "Upload of " + shown + " failed: " + reason;
    json_ptr details(json_pack(
        "{s:s, s:s, s:I, s:I, s:I}", "fileName", shown.c_str(), "outcome", done ? "Complete" : "Failed",
        "httpStatus", static_cast<json_int_t>(outcome.http_status), "bytes",
        static_cast<json_int_t>(outcome.bytes), "seconds", static_cast<json_int_t>(outcome.seconds)));
    if (details && !done)
        (void)json_object_set_new(details.get(), "reason", json_string(reason.c_str()));
    return as_text(
        json_ptr(json_pack("{s:i, s:s, s:I, s:s, s:o*}", "msgType", 699, "eId", "TechSupportUpload", "eTime",
                           static_cast<json_int_t>(now), "desc",
                           presentable(words, DESCRIPTION_LIMIT).c_str(), "varPayload", details.release())));
}

/* One try. Returns 0, or -1 with errno. */
static int send_once(const struct sockaddr_un &address, const std::string &text)
{
    fd_guard sock(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (sock.fd < 0)
        return -1;
    ssize_t sent = sendto(sock.fd, text.data(), text.size(), MSG_NOSIGNAL,
                          reinterpret_cast<const struct sockaddr *>(&address), sizeof(address));
    return sent == static_cast<ssize_t>(text.size()) ? 0 : -1;
}

static bool may_pass(int error)
{
    return error == EAGAIN || error == ENOBUFS || error == ECONNREFUSED || error == ENOENT || error == EINTR;
}

int send_report(const char *socket_path, const std::string &text)
{
    struct sockaddr_un address;
    if (local_address(socket_path, &address) != 0)
        return -1;
    int64_t begun = monotonic_ms();
    for (;;) {
        if (send_once(address, text) == 0)
            return 0;
        int error = errno;
        int64_t patience = stop_signal() != 0 ? STOPPED_PATIENCE_MS : PATIENCE_MS;
        if (!may_pass(error) || monotonic_ms() - begun >= patience) {
            errno = error;
            return -1;
        }
        pause_ms(AGAIN_MS);
    }
}
