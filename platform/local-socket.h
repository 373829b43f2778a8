/*
 * Sockets of this device: their place in the file system, and who may talk to them.
 */
#pragma once

/* The programs that talk to the agent belong to this group, where a device has it. */
#define LOCAL_SOCKET_GROUP "device-agent"

/*
 * Binds a Unix-domain socket to its path; a file that an earlier run left there is removed. The socket is for
 * root and the group, mode 0660, from the moment it exists: a stranger never gets in between. Returns 0, or
 * -1 with errno set; the descriptor stays the caller's.
 */
int bind_local_socket(int fd, const char *path);
