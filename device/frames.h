/*
 * Frames over local stream sockets: four bytes, unsigned, big-endian, give the length; then that many bytes
 * of text follow. This is the framing under device/scmd.h; unlike that header's two calls these functions are
 * this project's own in every build, whosever device library is linked.
 *
 * Sockets only, blocking or not. Failure is -1 with errno as in device/scmd.h; after it the stream is out of
 * step and can only be closed.
 */
#pragma once

#include <cstddef>

enum {
    SCMD_HEADER_SIZE = 4,
    SCMD_MAX_LENGTH = 4 * 1024 * 1024, /* bytes of text in one message */
};

/* One message out or in, within a time in milliseconds; see write_a_msg and read_a_msg. */
int write_a_msg_within(int fd, const char *text, size_t length, int milliseconds);
int read_a_msg_within(int fd, char **buffer, size_t *length, int milliseconds);

/*
 * A message on its way in, for callers that must not wait. All zero is a fresh reader. It holds no more
 * memory than twice what has arrived, whatever length the peer announced.
 */
struct frame_reader {
    unsigned char header[SCMD_HEADER_SIZE];
    size_t header_used;
    char *text; /* malloc(3)ed, terminated when the message is complete */
    size_t length;
    size_t used;
    size_t capacity;
};

/*
 * Takes what the socket has, up to the end of the message, without waiting. Returns 1 when the message is
 * complete, 0 when more has to come, -1 on failure. A complete reader is cleared before the next message.
 */
int frame_read(struct frame_reader *reader, int fd);

/* Hands the text of a complete message to the caller, who frees it, and makes the reader fresh. */
char *frame_take(struct frame_reader *reader, size_t *length);

/* Frees what the reader holds and makes it fresh. */
void frame_clear(struct frame_reader *reader);
