#include "agent/signal-mask.h"

static const int our_signals[] = {SIGUSR1, SIGHUP, SIGTERM};

static sigset_t waiting_mask; /* all zero, the empty set, until signals_block has run */

void signals_block(void)
{
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, nullptr);

    /* Inherited as ignored it would take the children's statuses away from us. */
    struct sigaction child = {};
    child.sa_handler = SIG_DFL;
    sigaction(SIGCHLD, &child, nullptr);

    sigset_t ours;
    sigemptyset(&ours);
    for (int number : our_signals)
        sigaddset(&ours, number);
    sigprocmask(SIG_BLOCK, &ours, &waiting_mask);
    /* Whoever started us may have blocked them: they are ours to let in. */
    for (int number : our_signals)
        sigdelset(&waiting_mask, number);
}

const sigset_t *signals_waiting_mask(void) { return &waiting_mask; }

void signals_let_in(void)
{
    sigset_t blocked;
    sigprocmask(SIG_SETMASK, &waiting_mask, &blocked);
    sigprocmask(SIG_SETMASK, &blocked, nullptr);
}

void signals_reset_for_child(void)
{
    struct sigaction defaults = {};
    defaults.sa_handler = SIG_DFL;
    for (int number = 1; number < NSIG; number++)
        sigaction(number, &defaults,
                  nullptr); /* fails for SIGKILL, SIGSTOP and the C library's own: they stay */
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}
