#include "device/scm.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include "device/frames.h"
#include "device/scmintf.h"

static const char NOT_AVAILABLE[] = "Configuration daemon not available";
static const char CLOSED[] = "Configuration daemon closed the connection";
static const char INVALID_REPLY[] = "Invalid reply from configuration daemon";
static const char NO_ERROR_TEXT[] = "Configuration daemon reported an error";
static const char TOO_LARGE[] = "Configuration too large for the configuration daemon";
static const char NOT_ENCODED[] = "Configuration could not be encoded";

struct free_text {
    void operator()(char *text) const { free(text); }
};
struct release_value {
    void operator()(json_t *value) const { json_decref(value); }
};
using text_owner = std::unique_ptr<char, free_text>;
using json_owner = std::unique_ptr<json_t, release_value>;

/* A copy for the caller, cut between characters. Without memory for it the only other answer would be null,
 * "success", for a configuration that was refused. */
static char *error_copy(const char *text)
{
    size_t length = strnlen(text, SCM_ERROR_LENGTH + 1);
    if (length > SCM_ERROR_LENGTH)
        for (length = SCM_ERROR_LENGTH; length > 0 && (text[length] & 0xC0) == 0x80;)
            length--;
    char *copy = strndup(text, length);
    if (!copy)
        abort();
    return copy;
}

/* ---- one exchange ---- */

static int64_t now_in_milliseconds(void)
{
    struct timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

/* What is left until the deadline, for a call that takes milliseconds. */
static int left_until(int64_t deadline)
{
    int64_t left = deadline - now_in_milliseconds();
    return left > 0 ? static_cast<int>(left) : 0;
}

/* Connects the socket. Where the daemon's queue is full, connect(2) waits for as long as sending may take. */
static int connect_until(int fd, int64_t deadline)
{
    const struct sockaddr_un address = {AF_UNIX, SCM_SOCKET};
    while (int left = left_until(deadline)) {
        struct timeval limit = {left / 1000, left % 1000 * 1000};
        if (setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit)) != 0)
            return -1;
        if (connect(fd, reinterpret_cast<const struct sockaddr *>(&address), sizeof(address)) == 0)
            return 0;
        if (errno != EINTR)
            return -1;
    }
    errno = ETIMEDOUT;
    return -1;
}

/* Tells what failed to whoever listens; returns the error text for it. */
static const char *failed(int line, const char *step, const char *text)
{
    int reason = errno;
    char message[128];
    snprintf(message, sizeof(message), "%s: %s: %s", SCM_SOCKET, step, strerror(reason));
    if (scmintf_print)
        scmintf_print("scm.cpp", line, message);
    return reason == ECONNRESET || reason == EPIPE ? CLOSED : text;
}

static const char *talk(int fd, const char *message, size_t length, text_owner *reply)
{
    int64_t deadline = now_in_milliseconds() + SCM_TIMEOUT;
    if (connect_until(fd, deadline) != 0)
        return failed(__LINE__, "connect", NOT_AVAILABLE);
    if (write_a_msg_within(fd, message, length, left_until(deadline)) != 0)
        return failed(__LINE__, "send", NOT_AVAILABLE);
    char *text = nullptr;
    size_t reply_length = 0;
    if (read_a_msg_within(fd, &text, &reply_length, left_until(deadline)) != 0)
        return failed(__LINE__, "receive", errno == EMSGSIZE ? INVALID_REPLY : NOT_AVAILABLE);
    reply->reset(text);
    return nullptr;
}

/* Sends a message and receives the answer. Null, or the error text of what went wrong. */
static const char *exchange(const char *message, text_owner *reply)
{
    size_t length = strlen(message);
    if (length > SCMD_MAX_LENGTH)
        return TOO_LARGE;
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return failed(__LINE__, "socket", NOT_AVAILABLE);
    const char *failure = talk(fd, message, length, reply);
    close(fd);
    return failure;
}

char *scm_send_and_recv(const char *message)
{
    text_owner reply;
    if (!message || exchange(message, &reply) != nullptr)
        return nullptr;
    return reply.release();
}

/* ---- answers ---- */

/* The answer's JSON, null when it is none. A daemon that cuts its texts by bytes breaks a character: such an
 * answer is read with a question mark for every byte that is not ASCII, for its message is what helps. */
static json_owner load_reply(const char *reply)
{
    json_owner value(json_loads(reply, JSON_ALLOW_NUL, nullptr));
    if (value)
        return value;
    text_owner ascii(strdup(reply));
    if (!ascii)
        return value;
    for (char *at = ascii.get(); *at; at++)
        if (*at & 0x80)
            *at = '?';
    value.reset(json_loads(ascii.get(), JSON_ALLOW_NUL, nullptr));
    return value;
}

char *scm_parse_action_rsp(const char *reply)
{
    if (!reply)
        return error_copy(NOT_AVAILABLE);
    json_owner value = load_reply(reply);
    const char *status = json_string_value(json_object_get(value.get(), "status"));
    if (status && strcmp(status, "ok") == 0)
        return nullptr;
    if (!status || strcmp(status, "error") != 0) {
        if (scmintf_print)
            scmintf_print("scm.cpp", __LINE__, INVALID_REPLY);
        return error_copy(INVALID_REPLY);
    }
    const char *text = json_string_value(json_object_get(value.get(), "error"));
    return error_copy(text && text[0] ? text : NO_ERROR_TEXT);
}

/* ---- messages ---- */

/* Sends a message that was built (null: it could not be). Null, or an error text. */
static char *carry_out(const json_owner &message)
{
    text_owner text(message ? json_dumps(message.get(), JSON_COMPACT) : nullptr);
    if (!text)
        return error_copy(NOT_ENCODED);
    text_owner reply;
    const char *failure = exchange(text.get(), &reply);
    return failure ? error_copy(failure) : scm_parse_action_rsp(reply.get());
}

/* A configuration goes into the message by a reference of its own; it is only read. */
static char *send_config(const char *type, const json_t *config, int overwrite)
{
    json_owner message(json_pack("{s:s, s:i, s:O}", "mType", type, "overwrite", overwrite ? 1 : 0, "config",
                                 const_cast<json_t *>(config)));
    return carry_out(message);
}

char *scm_process_device_json_config(const json_t *config, int overwrite)
{
    return send_config("DEVICE-JSON-CONFIG", config, overwrite);
}

char *scm_process_device_native_config(const json_t *native_or_null, int overwrite)
{
    return native_or_null ? send_config("DEVICE-NATIVE-CONFIG", native_or_null, overwrite) : nullptr;
}

int scm_process_config_set_item(const char *name, const char *value)
{
    json_owner message(json_pack("{s:s, s:s, s:s}", "mType", "CONFIG-SET", "name", name, "value", value));
    text_owner error(carry_out(message));
    if (error && scmintf_print)
        scmintf_print("scm.cpp", __LINE__, error.get());
    return error ? -1 : 0;
}

char *scm_build_msg_no_payload(const char *type)
{
    json_owner message(json_pack("{s:s}", "mType", type));
    return message ? json_dumps(message.get(), JSON_COMPACT) : nullptr;
}
