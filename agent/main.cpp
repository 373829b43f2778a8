/*
 * device-agent: keeps an access point connected to its management controller.
 */
#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

#include "agent/da.h"
#include "agent/debug-log.h"
#include "agent/environment.h"
#include "agent/signal-mask.h"
#include "agent/start.h"
#include "agent/text.h"

#define MODULE "device-agent.c"

static void usage(void) { LOG(LOG_FAILURE, "Usage: device-agent [-d <log level>] [-h]"); }

/*
 * Started without descriptors 0, 1 or 2, the agent would give their numbers to a socket or to the log, and
 * what is printed would go there. Children inherit these three.
 */
static void hold_standard_descriptors(void)
{
    int fd;
    do
        fd = open("/dev/null", O_RDWR);
    while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0)
        close(fd);
}

int main(int argc, char **argv)
{
    int debug_level = 0;
    int option;
    opterr = 0; /* an unknown option gets the usage line, nothing else */
    while ((option = getopt(argc, argv, "hd:s:iv")) != -1) {
        switch (option) {
        case 'd': debug_level = text_to_int(optarg); break;
        case 's': copy_format_text(static_orv_url, optarg); break;
        case 'i': stay_idle = 1; break;
        case 'v': printf("%s\n", DA_VERSION); return 0;
        default: usage(); return 0;
        }
    }
    if (optind > argc)
        usage();
    else {
        hold_standard_descriptors();
        signals_block();
        settle_environment();
        (void)start_device_agent(debug_level);
    }
    return 0;
}
