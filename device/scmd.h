/*
 * Framed messages over local stream sockets: four bytes, unsigned, big-endian, give the length; then that
 * many bytes of text follow. A maker's build links its own library of this name, with C linkage; both ends
 * use the same framing.
 *
 * All calls are for sockets, whether they block or not, and report failure by -1 with errno: ETIMEDOUT (the
 * peer stalled), ECONNRESET (it went away, in the middle of a frame or before it), EMSGSIZE (longer than
 * allowed), ENOMEM, or what the socket said. After a failure the stream is out of step and can only be
 * closed.
 */
#pragma once

#include <cstddef>

enum { SCMD_TIMEOUT = 10000 }; /* milliseconds for one whole message, in either direction */

extern "C" {

/* Sends one message. Returns 0 or -1. Blocks for at most SCMD_TIMEOUT. */
int write_a_msg(int fd, const char *text, size_t length);

/*
 * Receives one message and not a byte more: a terminated text that the caller frees with free(3), and its
 * length. Returns 0, or -1 with both untouched. Blocks for at most SCMD_TIMEOUT.
 */
int read_a_msg(int fd, char **buffer, size_t *length);
}
