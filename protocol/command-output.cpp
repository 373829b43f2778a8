#include "protocol/command-output.h"

#include <cstring>
#include <string>

#include "agent/da.h"
#include "agent/debug-log.h"
#include "agent/hooks.h"
#include "agent/named-timer.h"
#include "agent/text.h"
#include "protocol/message.h"

#define MODULE "exec-cmd.c"

enum { SEND_PERIOD = 1 }; /* seconds */

int32_t ts_mode;
int32_t exec_running;
char ts_data[TS_DATA_SIZE];

static named_timer send_ts_data = {"SEND TS DATA", send_ts_data_cb, nullptr};

static json_ptr output_message(const char *status)
{
    json_ptr message = new_message(MSG_EXEC_CMD_RSP);
    add_text(message, "status", status);
    return message;
}

/* ---- to the front end ---- */

static int send_to_front_end(const char *text, const char *status)
{
    json_ptr message = output_message(status);
    add_text(message, "output", text);
    malloc_text packet = dump_message(message, "send_exec_cmd_output");
    return packet
               ? call_hook(hooks.write_to_fcgi, static_cast<const char *>(packet.get()), strlen(packet.get()))
               : -1;
}

/* ---- to the controller ---- */

static void gather(const char *text)
{
    size_t used = strlen(ts_data);
    size_t length = strlen(text);
    if (used + length < TS_DATA_SIZE)
        memcpy(ts_data + used, text, length + 1);
}

static int send_to_controller(const char *text, const char *status)
{
    json_ptr message = output_message(status);
    if (text)
        add_text(message, "output", text);
    malloc_text packet = dump_message(message, "send_exec_cmd_output");
    int result = queue_text(packet);
    if (packet && result != 0)
        LOG(LOG_FAILURE, "Failed to send troubleshooting data to Orvanta");
    return result;
}

int send_exec_cmd_output(const char *text, const char *status)
{
    if (ts_mode == TS_FOR_FRONT_END)
        return send_to_front_end(text, status);
    if (strcmp(status, "InProgress") == 0) {
        gather(text);
        return 0;
    }
    if (strcmp(status, "Complete") == 0)
        return *text ? send_to_controller(text, status) : 0;
    if (strcmp(status, "Initiated") != 0)
        return send_to_controller(nullptr, status);
    ts_data[0] = '\0';
    timer_arm(send_ts_data, SEND_PERIOD);
    return send_to_controller(text, status);
}

/* Sends one message of the timer; true when it was accepted. */
static bool send_periodically(const std::string &output, const char *status)
{
    json_ptr message = output_message(status);
    add_text(message, "output", output.c_str());
    if (queue_text(dump_message(message, "send_ts_data_cb")) == 0)
        return true;
    LOG(LOG_FAILURE, "%s: write_to_orv failed", "send_ts_data_cb");
    return false;
}

void send_ts_data_cb(void *)
{
    timer_fired(send_ts_data);
    log_file_only quiet; /* streamed lines about the streaming would never end */
    if (da.state != DA_STATE_CONNECTED) {
        LOG(LOG_TRACE, "%s: Device disconnected, trash the ts data", "send_ts_data_cb");
        /* Nobody will ever hear of it: without this timer what it says goes nowhere, after a reconnect too.
         */
        if (exec_running && ts_mode == TS_FOR_CONTROLLER)
            (void)call_hook(hooks.abort_exec_cmd, nullptr, nullptr);
        ts_data[0] = '\0';
        return;
    }
    /* A command that has meanwhile begun for the front end is none of the controller's. */
    const bool more_to_come = exec_running && ts_mode == TS_FOR_CONTROLLER;
    if (!ts_data[0]) {
        if (more_to_come) {
            timer_arm(send_ts_data, SEND_PERIOD);
            return;
        }
        LOG(LOG_TRACE, "%s: sending Complete", "send_ts_data_cb");
        (void)send_periodically("", "Complete");
        return;
    }
    LOG(LOG_TRACE, "%s: sending g_tsData\n", "send_ts_data_cb");
    /* The rest of a character that a read cut in two is still to come, as long as the command runs. */
    size_t length = strlen(ts_data);
    size_t whole = utf8_whole(ts_data, length);
    if (!more_to_come || whole == 0)
        whole = length;
    if (send_periodically(std::string(ts_data, whole), "InProgress"))
        memmove(ts_data, ts_data + whole, length - whole + 1);
    timer_arm(send_ts_data, SEND_PERIOD);
}

void command_output_reset(void)
{
    timer_disarm(send_ts_data);
    ts_mode = TS_FOR_FRONT_END;
    exec_running = 0;
    ts_data[0] = '\0';
}
