/*
 * Sockets at which programs of this device reach the agent. Tools of the device talk to it, strangers don't:
 * mode 0660, root and the group "device-agent" where the system has one.
 */
#pragma once

#define LOCAL_SOCKET_GROUP "device-agent"

struct sockaddr_un;

/* Fills a socket's address. Returns 0, or -1 with errno when the path is too long for one. */
int local_address(const char *path, struct sockaddr_un *address);

/*
 * Binds a Unix-domain socket to a path, from which a stale socket or file is removed (a folder with
 * something in it is renamed: ".aside"). At no moment may a
 * stranger use it. Returns 0, or -1 with errno; the descriptor stays the caller's.
 */
int bind_local_socket(int fd, const char *path);
