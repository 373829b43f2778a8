#include "device/frames.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <poll.h>
#include <sys/socket.h>
#include <time.h>

static int fail(int reason)
{
    errno = reason;
    return -1;
}

/* ---- waiting ---- */

static int64_t now_in_milliseconds(void)
{
    struct timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

/* Waits until the socket can be read or written. 0, or -1 at the deadline. An interrupted wait goes on. */
static int wait_until(int fd, short events, int64_t deadline)
{
    struct pollfd waiting = {fd, events, 0};
    for (;;) {
        int64_t left = deadline - now_in_milliseconds();
        if (left <= 0)
            return fail(ETIMEDOUT);
        int ready = poll(&waiting, 1, static_cast<int>(left));
        if (ready > 0)
            return 0;
        if (ready < 0 && errno != EINTR)
            return -1;
    }
}

static bool not_now(int reason) { return reason == EAGAIN || reason == EWOULDBLOCK || reason == EINTR; }

/* ---- writing ---- */

static int send_whole(int fd, const void *data, size_t length, int flags, int64_t deadline)
{
    const char *at = static_cast<const char *>(data);
    while (length > 0) {
        ssize_t sent = send(fd, at, length, MSG_DONTWAIT | MSG_NOSIGNAL | flags);
        if (sent < 0) {
            if (!not_now(errno) || wait_until(fd, POLLOUT, deadline) != 0)
                return -1;
            continue;
        }
        at += sent;
        length -= static_cast<size_t>(sent);
        if (length > 0 && now_in_milliseconds() >= deadline)
            return fail(ETIMEDOUT);
    }
    return 0;
}

int write_a_msg_within(int fd, const char *text, size_t length, int milliseconds)
{
    if (length > SCMD_MAX_LENGTH)
        return fail(EMSGSIZE);
    int64_t deadline = now_in_milliseconds() + milliseconds;
    unsigned char header[SCMD_HEADER_SIZE];
    for (size_t i = 0; i < SCMD_HEADER_SIZE; i++)
        header[i] = static_cast<unsigned char>(length >> (8 * (SCMD_HEADER_SIZE - 1 - i)));
    if (send_whole(fd, header, sizeof(header), length > 0 ? MSG_MORE : 0, deadline) != 0)
        return -1;
    return send_whole(fd, text, length, 0, deadline);
}

/* ---- reading ---- */

/* What is there: more than 0 bytes, 0 when there is nothing yet, -1 on failure and at the stream's end. */
static ssize_t receive(int fd, void *buffer, size_t size)
{
    ssize_t got = recv(fd, buffer, size, MSG_DONTWAIT);
    if (got > 0)
        return got;
    if (got == 0)
        return fail(ECONNRESET);
    return not_now(errno) ? 0 : -1;
}

/* Room for at least one more byte and the NUL: doubled as bytes arrive, never beyond the announced length. */
static int make_room(struct frame_reader *reader)
{
    const size_t first = 4096;
    if (reader->text && reader->used + 1 < reader->capacity)
        return 0;
    size_t wanted = std::min(std::max(first, reader->capacity * 2), reader->length + 1);
    if (reader->text && wanted <= reader->capacity)
        return 0;
    void *grown = realloc(reader->text, wanted);
    if (!grown)
        return fail(ENOMEM);
    reader->text = static_cast<char *>(grown);
    reader->capacity = wanted;
    return 0;
}

/* The announced length, once the header is there: 1; 0 when more has to come. */
static int read_header(struct frame_reader *reader, int fd)
{
    while (reader->header_used < SCMD_HEADER_SIZE) {
        ssize_t got =
            receive(fd, reader->header + reader->header_used, SCMD_HEADER_SIZE - reader->header_used);
        if (got <= 0)
            return static_cast<int>(got);
        reader->header_used += static_cast<size_t>(got);
    }
    size_t length = 0;
    for (unsigned char byte : reader->header)
        length = length << 8 | byte;
    if (length > SCMD_MAX_LENGTH)
        return fail(EMSGSIZE);
    reader->length = length;
    return 1;
}

int frame_read(struct frame_reader *reader, int fd)
{
    int header = read_header(reader, fd);
    if (header <= 0)
        return header;
    while (reader->used < reader->length) {
        if (make_room(reader) != 0)
            return -1;
        ssize_t got = receive(fd, reader->text + reader->used, reader->capacity - 1 - reader->used);
        if (got <= 0)
            return static_cast<int>(got);
        reader->used += static_cast<size_t>(got);
    }
    if (make_room(reader) != 0)
        return -1;
    reader->text[reader->used] = '\0';
    return 1;
}

char *frame_take(struct frame_reader *reader, size_t *length)
{
    char *text = reader->text;
    *length = reader->used;
    *reader = {};
    return text;
}

void frame_clear(struct frame_reader *reader)
{
    free(reader->text);
    *reader = {};
}

int read_a_msg_within(int fd, char **buffer, size_t *length, int milliseconds)
{
    int64_t deadline = now_in_milliseconds() + milliseconds;
    struct frame_reader reader = {};
    int result;
    while ((result = frame_read(&reader, fd)) == 0)
        if ((result = wait_until(fd, POLLIN, deadline)) != 0)
            break;
    if (result == 1) {
        *buffer = frame_take(&reader, length);
        return 0;
    }
    int reason = errno;
    frame_clear(&reader);
    return fail(reason);
}
