#include "transfer/stop.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

static int listener = -1;
static int taken; /* the signal that has come */

int stop_listen(void)
{
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, nullptr);
    sigaction(SIGXFSZ, &ignore, nullptr);
    sigset_t held;
    sigemptyset(&held);
    for (int number : {SIGTERM, SIGINT, SIGHUP, SIGQUIT})
        sigaddset(&held, number);
    sigprocmask(SIG_BLOCK, &held, nullptr);
    listener = signalfd(-1, &held, SFD_CLOEXEC | SFD_NONBLOCK);
    return listener < 0 ? -1 : 0;
}

int stop_fd(void) { return listener; }

int stop_signal(void)
{
    struct signalfd_siginfo found;
    if (taken == 0 && read(listener, &found, sizeof(found)) == sizeof(found))
        taken = static_cast<int>(found.ssi_signo);
    return taken;
}

void pause_ms(int milliseconds) { (void)poll(nullptr, 0, milliseconds); }

int64_t monotonic_ms(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

int stop_wait(int64_t milliseconds)
{
    int64_t end = monotonic_ms() + milliseconds;
    for (;;) {
        if (stop_signal() != 0)
            return stop_signal();
        int64_t left = end - monotonic_ms();
        if (left <= 0)
            return 0;
        struct pollfd wanted = {listener, POLLIN, 0};
        (void)poll(&wanted, 1, static_cast<int>(std::min<int64_t>(left, 60000)));
    }
}
