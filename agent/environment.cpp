#include "agent/environment.h"

#include <cstdlib>

#include <sys/stat.h>
#include <unistd.h>

#include "agent/utils.h"

void settle_environment(void)
{
    static const char *const steering[] = {
        "http_proxy", "https_proxy", "all_proxy", "socks_proxy", "SSL_CERT_FILE", "SSL_CERT_DIR",
    };
    for (const char *name : steering)
        unsetenv(name);
    setenv("RES_OPTIONS", RESOLVER_OPTIONS, 1);
    umask(022);
    (void)!chdir("/");
}
