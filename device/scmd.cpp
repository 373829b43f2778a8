#include "device/scmd.h"

#include "device/frames.h"

int write_a_msg(int fd, const char *text, size_t length)
{
    return write_a_msg_within(fd, text, length, SCMD_TIMEOUT);
}

int read_a_msg(int fd, char **buffer, size_t *length)
{
    return read_a_msg_within(fd, buffer, length, SCMD_TIMEOUT);
}
