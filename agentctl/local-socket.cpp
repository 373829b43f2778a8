#include "agentctl/local-socket.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include <sys/socket.h>
#include <sys/un.h>

#include "agentctl/output.h"

static void tell_why(const char *path, int error)
{
    if (error == ENOENT)
        complain("the agent is not there: it has no socket %s", path);
    else if (error == ECONNREFUSED)
        complain("the agent is not there: nobody listens at %s", path);
    else if (error == EACCES || error == EPERM)
        complain("you may not speak to the agent at %s: be root or of the group device-agent", path);
    else
        complain("the agent cannot be reached at %s: %s", path, strerror(error));
}

int connect_local(const char *path, int type)
{
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path, sizeof(address.sun_path) - 1);
    fd_guard sock(socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (sock.fd < 0 ||
        connect(sock.fd, reinterpret_cast<const struct sockaddr *>(&address), sizeof(address)) != 0) {
        tell_why(path, errno);
        return -1;
    }
    return sock.release();
}

/* "Num: RefCount Protocol Flags Type St Inode Path"; state 03 is connected, and the agent's end has the path.
 */
int connections_in(const char *table, const char *path)
{
    std::istringstream lines(table);
    int count = 0;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string word[8];
        for (std::string &each : word)
            words >> each;
        if (word[5] == "03" && word[7] == path)
            count++;
    }
    return count;
}

int open_connections(const char *path)
{
    std::ifstream file("/proc/net/unix");
    std::ostringstream text;
    text << file.rdbuf();
    return connections_in(text.str().c_str(), path);
}
