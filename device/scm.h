/*
 * Calls of the configuration daemon: apply a configuration, set one value, send it a message of one's own. A
 * maker's build links its own "scmintf" library, which defines these functions with C linkage.
 *
 * Here each message travels on a connection of its own to SCM_SOCKET, framed as device/scmd.h says. A call
 * blocks for at most SCM_TIMEOUT from connecting to the last byte of the answer, whatever the daemon does and
 * whatever signal interrupts; it raises no SIGPIPE. The daemon answers {"status":"ok"} or
 * {"status":"error","error":"..."}.
 *
 * Texts that a call returns are the caller's to free with free(3). An error text is never empty and has at
 * most SCM_ERROR_LENGTH bytes, cut between characters: the daemon's own where it gave one, else one of these:
 *
 * "Configuration daemon not available": nobody there, too busy to accept, or no whole answer in time
 *
 * "Configuration daemon closed the connection": before the whole answer was there; it may have died
 *
 * "Invalid reply from configuration daemon": no JSON, of another shape, or longer than a frame may be
 *
 * "Configuration daemon reported an error": an error without a text
 *
 * "Configuration too large for the configuration daemon": 4 MiB and more, nothing was sent
 *
 * "Configuration could not be encoded": no value given, texts that are no UTF-8, no memory
 *
 * What lies behind the first three is told to scmintf_print.
 */
#pragma once

#include <jansson.h>

#define SCM_SOCKET "/var/tmp/scmd_server"

enum {
    SCM_TIMEOUT = 10000,     /* milliseconds for one whole call */
    SCM_ERROR_LENGTH = 1023, /* bytes of an error text, without the NUL */
};

extern "C" {

/*
 * Hand the daemon a device configuration: {"mType":"DEVICE-JSON-CONFIG","overwrite":0|1,"config":...}, and
 * "DEVICE-NATIVE-CONFIG" for the maker's own form. Members keep their order and values. Null on success, else
 * an error text. Without a native part (null) there is nothing to do and nothing is sent.
 */
char *scm_process_device_json_config(const json_t *config, int overwrite);
char *scm_process_device_native_config(const json_t *native_or_null, int overwrite);

/* Sets one value: {"mType":"CONFIG-SET","name":...,"value":...}. Returns 0, or -1 when it was not set. */
int scm_process_config_set_item(const char *name, const char *value);

/* A message that is its type alone, {"mType":"..."}; null when memory is short. */
char *scm_build_msg_no_payload(const char *type);

/* Sends a message and returns the answer's text as it came, null when there is none. */
char *scm_send_and_recv(const char *message);

/* What an answer says: null for success, else an error text. No answer (null) is "not available". */
char *scm_parse_action_rsp(const char *reply);
}
