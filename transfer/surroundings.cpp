#include "transfer/surroundings.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

#include "agent/environment.h"
#include "agent/owners.h"

static bool begins_with(const char *name, const char *start)
{
    return strncasecmp(name, start, strlen(start)) == 0;
}

static bool ends_with(const char *name, const char *end)
{
    size_t length = strlen(name);
    return length >= strlen(end) && strcasecmp(name + length - strlen(end), end) == 0;
}

bool steers_a_transfer(const char *name)
{
    /* "SSL" covers SSLKEYLOGFILE, at whose file libcurl would lay down the keys of the connection. */
    for (const char *start : {"SSL", "OPENSSL", "CURL", "LOCALDOMAIN", "HOSTALIASES", "RES_OPTIONS"})
        if (begins_with(name, start))
            return true;
    return ends_with(name, "_proxy");
}

void settle_surroundings(void)
{
    std::vector<std::string> doomed;
    for (char **entry = environ; entry && *entry; entry++) {
        std::string name(*entry, strcspn(*entry, "="));
        if (steers_a_transfer(name.c_str()))
            doomed.push_back(name);
    }
    for (const std::string &name : doomed)
        unsetenv(name.c_str());
    /* Names on the command line are meant from where the program was started. */
    fd_guard here(open(".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    settle_environment();
    if (here.fd >= 0)
        (void)!fchdir(here.fd);
}
