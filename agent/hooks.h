/*
 * Calls that go up: what a low module has to tell a higher one goes through a hook, so that no file includes
 * one above it. agent/wiring.cpp installs them, and there alone. An unset hook does nothing and yields 0, so
 * that a test installs only those it needs.
 */
#pragma once

#include <cstddef>
#include <cstdint>

#include <jansson.h>

struct agent_hooks {
    /* ground */
    void (*append_logs)(const char *line); /* a logged line, for the log stream */
    void (*state_entry[5])(void); /* entry actions of the connection states, see agent/enter-state.h */
    void (*beat)(void);           /* touches the heartbeat, during a wait that may last */

    /* device */
    int (*platform_fcgi_server_init)(void);                  /* opens the front end's request socket */
    void (*address_changed)(const char *reason, size_t len); /* the controller's address is another one */
    void (*start_cfg_restore_timer)(void);    /* a reconfigured device is without its controller */
    void (*install_station_disconnect)(void); /* tells the Wi-Fi daemon library whom to call */

    /* controller link */
    int (*handle_orv_msg)(char *text, size_t length,
                          void *user); /* a whole message; text[length] is writable */
    void (*wait_for_reconnect)(void);  /* a connect attempt failed */
    void (*cancel_periodic_stats)(void);
    void (*platform_cancel_cfg_restore)(void); /* the connection proved alive */

    /*
     * jobs that the front end asks for: 0, or a status with the error text (ERROR_STRING_SIZE
     * bytes) set. The name of the command goes to `name`, where one is wanted; its receiver frees it.
     */
    int (*parse_exec_cmd)(const json_t *request, char *error_text);
    int (*start_exec_cmd)(const json_t *request, int32_t ts_mode, char **name);
    int (*abort_exec_cmd)(const json_t *request, char **name); /* a null request ends whatever runs */
    int (*parse_radio_scan_request)(const json_t *request, char *error_text, int32_t mode);

    /* messages */
    int (*write_to_fcgi)(const char *text, size_t length); /* one packet for the front end */
    int32_t (*sw_update_state)(void);                      /* "swUpdateState" of REGISTER */
    void (*stop_fw_dl_process)(void); /* ends a running firmware download; also at the end of the agent */

    /* dispatcher */
    void (*stop_wifiperf)(void); /* ends a running Wi-Fi throughput test */

    /* state machine */
    void (*platform_restore_cfg)(void); /* back to the last good configuration */

    /* start */
    int (*log_server_init)(void);
    int (*platform_event_listener)(void);
    void (*device_agent_msg_from_wifid_callback_init)(void);
};

extern agent_hooks hooks;

/* Calls a hook if it is set; an unset one yields a zero result. */
template <typename result, typename... parameters, typename... arguments>
result call_hook(result (*hook)(parameters...), arguments... values)
{
    if (hook)
        return hook(values...);
    return result();
}
