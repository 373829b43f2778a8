/*
 * The command line of "agentctl run" as a request to the agent.
 */
#pragma once

#include <string>

#include <jansson.h>

/*
 * "-d SECONDS" and a command with its options and host; argv[0] is the verb. Returns the request (the
 * caller's), or null with the complaint.
 */
json_t *command_request(int argc, char **argv, std::string *complaint);
