/*
 * agentctl log
 */
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include "agent/debug-log.h"
#include "agentctl/exit-codes.h"
#include "agentctl/log-file.h"
#include "agentctl/numbers.h"
#include "agentctl/output.h"
#include "agentctl/usage.h"
#include "agentctl/verbs.h"

#define LOG_FOLDER "/var/log"

enum {
    FIRST_LINES = 10,
    LOOK_AGAIN = 1000, /* milliseconds, where no event comes */
};

/* Shows text. False when nobody reads it any more. */
static bool show(const std::string &text)
{
    std::string shown = isatty(STDOUT_FILENO) ? printable(text) : text;
    return fwrite(shown.data(), 1, shown.size(), stdout) == shown.size() && fflush(stdout) == 0;
}

/* Waits for a change in the folder, or for the one who reads to go away (false). */
static bool wait_for_change(int events)
{
    struct pollfd wanted[] = {{events, POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
    int ready = poll(wanted, 2, LOOK_AGAIN);
    if (ready > 0 && (wanted[1].revents & (POLLERR | POLLHUP)))
        return false;
    char ignored[4096];
    if (ready > 0 && (wanted[0].revents & POLLIN))
        (void)!read(events, ignored, sizeof(ignored));
    return true;
}

static int follow(followed_log *log)
{
    fd_guard events(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (events.fd >= 0) /* without it the file is looked at once a second */
        (void)inotify_add_watch(events.fd, LOG_FOLDER, IN_MODIFY | IN_CREATE | IN_MOVED_TO);
    while (wait_for_change(events.fd))
        if (!show(read_new(log)))
            break;
    return EXIT_GOOD;
}

int verb_log(int argc, char **argv)
{
    int32_t lines = FIRST_LINES;
    bool once = false;
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--once") == 0)
            once = true;
        else if (strcmp(argv[i], "-n") != 0)
            return usage_error("log", "what is ", argv[i]);
        else if (++i == argc || !whole_number(argv[i], 0, 1000000, &lines))
            return usage_error("log", "-n wants a number of lines");
    }
    followed_log log;
    log.path = AGENT_LOG_FILE;
    std::string text = open_log(&log, static_cast<size_t>(lines));
    bool missing = log.fd < 0;
    if (missing)
        complain("there is no %s%s", AGENT_LOG_FILE, once ? "" : " yet");
    int result = missing && once ? EXIT_UNAVAILABLE : EXIT_GOOD;
    if (show(text) && !once)
        result = follow(&log);
    close_log(&log);
    return result;
}
