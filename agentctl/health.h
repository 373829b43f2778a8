/*
 * How the agent is, from the files it keeps and the process table. Reading changes nothing.
 */
#pragma once

#include <cstdint>
#include <string>

#include "agentctl/agent-process.h"
#include "agentctl/sources.h"

enum health_verdict {
    HEALTH_CONNECTED = 0,
    HEALTH_NOT_CONNECTED = 1,
    HEALTH_NOT_ALIVE = 2,
};

/* Three heartbeats missed: the agent touches the file every 60 s, and more often where it waits long. */
enum { HEARTBEAT_STALE_SECONDS = 180 };

struct heartbeat {
    bool known = false;     /* there is a file, and the clock has not been set since it was touched */
    int64_t age = 0;        /* seconds; negative where the clock was set back */
    bool clock_set = false; /* touched before this boot or ahead of now: the age says nothing */
};

struct reason {
    int64_t when = 0; /* seconds since the epoch; 0: none is known */
    std::string text;
};

struct agent_health {
    health_verdict verdict = HEALTH_NOT_ALIVE;
    agent_process process;
    std::string connection; /* the published text; empty when there is none */
    heartbeat beat;
    reason last_close, last_reboot;
    int64_t next_attempt = 0; /* seconds since the epoch, 0: none is announced */
    int32_t starts = 0;
    std::string session_id;    /* empty before the first registration of this boot */
    std::string agent_version; /* of the agent that ran last */
};

/* Everything at the time `now`. */
agent_health read_health(int64_t now);

/* The age at `now` of a heartbeat touched at `touched`, on a device that has been up for `uptime` seconds. */
heartbeat judge_heartbeat(int64_t touched, int64_t now, int64_t uptime);

health_verdict judge_health(const agent_process &process, const heartbeat &beat,
                            const std::string &connection);

/*
 * Which source the address came from: while connected the first whose host is the one shown, else the one
 * that is asked first. Null when none names the host: a file has changed since.
 */
const address_source *source_in_force(const std::vector<address_source> &sources,
                                      const std::string &connection);
