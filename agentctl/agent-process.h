/*
 * The running agent, as /proc shows it.
 */
#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

#define AGENT_PROGRAM "device-agent"

struct agent_process {
    pid_t pid = 0;          /* 0: none is running */
    bool idle = false;      /* started with -i: it never looks for a controller */
    std::string static_url; /* the URL of -s, which wins over the static URL file; else empty */
};

/* Looks for it; a zombie is none, and a child that the agent has just made is not the agent. */
agent_process find_agent_process(void);

/* What the options of the agent's command line say; `arguments` are argv, its name first. */
void read_agent_options(std::vector<std::string> arguments, agent_process *agent);

/* The command lines of the troubleshooting commands that the agent runs as programs. Its other children, such
 * as a download of firmware, are none. */
std::vector<std::string> running_commands(pid_t agent);
