#include "agentctl/usage.h"

#include <cstdio>
#include <cstring>

#include "agentctl/exit-codes.h"
#include "agentctl/output.h"
#include "agentctl/verbs.h"

static const verb_row verbs[] = {
    {"status", verb_status, "status [--json]", "how the agent is",
     "Exit status: 0 connected, 1 not connected, 2 the agent is not alive\n"
     "(no process, or a heartbeat older than 3 minutes).\n"},
    {"check", verb_check, "check [--json]", "why is this device offline?",
     "Goes the agent's way to the controller step by step: address, clock, each source\n"
     "of the controller's address, name, connection, certificate, onboarding answer,\n"
     "controller. Works while the agent runs, changes nothing, takes less than 30 s.\n"
     "The account token is not spent and the websocket is not opened.\n"
     "Exit status: 0 the whole way is open, 1 it is not (or that cannot be told).\n"},
    {"log", verb_log, "log [-n LINES] [--once]", "follow the agent's log",
     "  -n LINES   begin with so many of its last lines (10)\n"
     "  --once     print them and end\n"},
    {"trap", verb_trap, "trap TEXT|-", "send an event to the controller",
     "TEXT is passed on byte for byte; \"-\" reads it from standard input, without its\n"
     "last newline. At most 2048 bytes.\n"},
    {"run", verb_run, "run [-d SECONDS] COMMAND [OPTIONS] [HOST]", "run a troubleshooting command",
     "  ping [-c COUNT] [-s SIZE] [-t TTL] [-v] HOST\n"
     "  traceroute [-I] [-F] [-l] [-v] HOST\n"
     "  nslookup HOST\n"
     "  tcpdump [-i INTERFACE] [-c COUNT] [-s SIZE] [-v] [FILTER...]\n"
     "  -d SECONDS  the longest it may run (no limit)\n"
     "Ctrl-C stops it on the device. One command runs at a time: another one that runs\n"
     "is stopped, with a warning.\n"},
    {"stop", verb_stop, "stop", "stop the running command", ""},
    {"scan", verb_scan, "scan [--json] 2.4GHz|5GHz", "channels and neighbours of a radio band", ""},
};

const verb_row *find_verb(const char *name)
{
    for (const verb_row &verb : verbs)
        if (strcmp(verb.name, name) == 0)
            return &verb;
    return nullptr;
}

void print_help(void)
{
    printf("Usage: agentctl VERB [ARGUMENTS]\n\n"
           "Looks after the device agent on this device.\n\n");
    for (const verb_row &verb : verbs)
        printf("  %-42s %s\n", verb.usage, verb.does);
    printf("\nagentctl VERB --help tells more of one. Exit status: 0 good, 1 bad, 64 wrong\n"
           "usage, 69 the agent is not there or refuses, 130 interrupted. See agentctl(8).\n");
}

void print_verb_help(const verb_row &verb)
{
    printf("Usage: agentctl %s\n\n%s%s%s", verb.usage, verb.does, verb.help[0] ? ".\n\n" : ".\n", verb.help);
}

int usage_error(const char *verb, const char *complaint, const char *word)
{
    complain("%s: %s%s", verb, complaint, word);
    fprintf(stderr, "Try: agentctl %s --help\n", verb);
    return EXIT_USAGE;
}
