/*
 * The service command "disconnect-clients": Wi-Fi clients are sent away, one after the other. It has no
 * output and runs beside a troubleshooting command.
 */
#pragma once

#include <cstdint>

#include <jansson.h>

/* Clients are sent away for so long (plus one call, SCM_TIMEOUT); those left then are not. The configuration
 * daemon answers within milliseconds, this is for one that does not. */
enum { DISCONNECT_SECONDS = 20 };

extern int32_t service_cmd_pending; /* 1 from a request that was taken to its start */

/* True when the request, which may be null, is one that this device can carry out. */
bool is_service_command(const json_t *request);

/* Takes a request. Returns 0, or BAD_REQUEST with the error text set. */
int parse_service_command(const json_t *request, char *error_text);

/* Carries it out. Returns false when the request, which may be null, names no clients; one that cannot be
 * sent away fails nothing. */
bool run_service_command(const json_t *request);

/* The name of the command that was taken last. */
const char *service_command_name(void);
