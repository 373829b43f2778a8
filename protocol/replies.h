/*
 * Replies and notices of a fixed shape, beside the bare acknowledgement and the failure reply of
 * protocol/message.h. Each builds one message and queues it: the result is write_to_orv's, or -1 when the
 * message cannot be serialised. Nothing is tried again.
 */
#pragma once

#include <cstdint>

#include <jansson.h>

/*
 * The status of an executed (409, 709) or stopped (410, 710) command; any other type tells the command alone.
 * The name stays the caller's; without one nothing is sent and the result is -1.
 */
int send_cmd_execution_abort_status(int32_t msgType, const char *command_name);

/*
 * Progress or failure of a software upgrade: the word is the "code" of a 701 and the "status" of anything
 * else. The second also logs the message.
 */
int build_and_send_upgrade_response(int32_t msgType, const char *word, const char *text);
int build_and_send_sw_update_state(int32_t msgType, const char *word, const char *text);

/* Progress of a configuration update (406). */
int write_config_status_to_orv(int32_t msgType, const char *word, const char *text);

/*
 * A configuration (407). Takes the object over. A message that cannot be serialised gives INTERNAL_ERROR with
 * the error text set.
 */
int send_config_to_orv(json_t *config, char *error_text);

/* The configuration changed on the device: its version (698). */
int build_and_send_cfg_change_notify(void);

/*
 * An event of the device (699), sent only while registered, else lost with -1. The payload may be null; it is
 * taken over in any case.
 */
int build_and_send_trap_info(const char *event_id, const char *description, json_t *payload);
