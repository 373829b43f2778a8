#include "platform/connection-status.h"

#include <algorithm>
#include <cerrno>
#include <string>

#include "agent/da.h"
#include "agent/debug-log.h"
#include "agent/named-timer.h"
#include "agent/state-file.h"
#include "agent/text.h"
#include "platform/wifid.h"

#define MODULE "wifi.c"

const char *const orv_state_str[ORV_STATE_COUNT] = {
    "Not Connected",             /* ORV_NOT_CONNECTED */
    "Resolving URL",             /* ORV_RESOLVING_URL */
    "Velmora-ID Not Configured", /* ORV_ID_NOT_CONFIGURED */
    "Access Denied",             /* ORV_ACCESS_DENIED */
    "Connecting",                /* ORV_CONNECTING */
    "Device Approval Pending",   /* ORV_APPROVAL_PENDING */
    "Connected",                 /* ORV_CONNECTED */
    "",                          /* ORV_TEXT_FROM_CONTROLLER */
};

enum {
    STATUS_LENGTH = 383,
    RESOLVING_DETAIL_LENGTH = 127,
    COUNTDOWN_START = 61,       /* seconds of delay from which the minutes are shown */
    COUNTDOWN_STEP = 60,        /* seconds */
    ACTION_PENDING_PERIOD = 10, /* seconds */
};

static named_timer status_notify = {"STATUS NOTIFY", status_notify_cb, nullptr};
static named_timer clear_action_pending = {"CLEAR ACTION PENDING", reset_action_pending_cb, nullptr};

/* ---- the text ---- */

static std::string countdown_text(const char *state)
{
    int32_t minutes = retry_time / COUNTDOWN_STEP;
    return std::string(state) + " in " + std::to_string(minutes) +
           (retry_time < 120 ? " minute" : " minutes");
}

/* Cut, but not within a character. */
static std::string cut_text(const std::string &text, size_t limit)
{
    return text.substr(0, utf8_border(text, limit));
}

static bool is_control(char byte) { return static_cast<unsigned char>(byte) < ' ' || byte == '\x7f'; }

static std::string status_text(int32_t code, const char *detail)
{
    std::string text = orv_state_str[code];
    switch (code) {
    case ORV_RESOLVING_URL:
        if (detail)
            text = cut_text(detail, RESOLVING_DETAIL_LENGTH);
        break;
    case ORV_ID_NOT_CONFIGURED:
    case ORV_ACCESS_DENIED:
    case ORV_APPROVAL_PENDING:
    case ORV_TEXT_FROM_CONTROLLER:
        if (detail)
            text = detail;
        break;
    case ORV_CONNECTING:
        if (retry_time >= COUNTDOWN_START)
            text = countdown_text(orv_state_str[code]);
        break;
    case ORV_CONNECTED: text += std::string(" to ") + g_orv_router; break;
    default: break;
    }
    text = cut_text(text, STATUS_LENGTH);
    /* It stays one line of text, whatever the controller sends: no line feed, and nothing that steers a
     * terminal. */
    std::replace_if(text.begin(), text.end(), is_control, ' ');
    return text;
}

/* ---- what goes with it ---- */

/*
 * A status that stays on display until one of the codes 0, 4 and 6. The clearing timer of an earlier
 * "Resolving URL" must not take it away.
 */
static void keep_on_display(void)
{
    timer_disarm(clear_action_pending);
    orv_state_action_pending = 1;
}

static void apply_status(int32_t code)
{
    switch (code) {
    case ORV_NOT_CONNECTED:
        send_controller_connected_state_update_to_wifid(0);
        orv_state_action_pending = 0;
        break;
    case ORV_RESOLVING_URL:
        timer_arm(clear_action_pending, ACTION_PENDING_PERIOD);
        orv_state_action_pending = 1;
        break;
    case ORV_ID_NOT_CONFIGURED:
    case ORV_ACCESS_DENIED:
    case ORV_APPROVAL_PENDING: keep_on_display(); break;
    case ORV_CONNECTING:
        orv_state_action_pending = 0;
        LOG(LOG_TRACE, "%s: idle_timeout=%d", "platform_set_orv_connection_state", idle_timeout);
        if (retry_time >= COUNTDOWN_START)
            timer_arm(status_notify, COUNTDOWN_STEP);
        break;
    case ORV_CONNECTED:
        if (controller_connected == 0)
            send_controller_connected_state_update_to_wifid(1);
        orv_state_action_pending = 0;
        break;
    default: break;
    }
}

/*
 * The file is replaced in one step, so that it cannot be opened for writing shows only when the new text is
 * ready; then nothing else changes. Where there is merely no room for the text, the device must still get to
 * know the state: the Wi-Fi daemon is told and the timers run.
 */
int platform_set_orv_connection_state(int32_t code, const char *detail)
{
    if (code < 0 || code >= ORV_STATE_COUNT) {
        LOG(LOG_FAILURE, "%s: No such Connection_state (%d)", "platform_set_orv_connection_state", code);
        return -1;
    }
    int result = replace_file(ORV_STATE_FILE, status_text(code, detail));
    int reason = errno;
    if (result != 0)
        LOG(LOG_FAILURE, "Unable to open orv_state file for writing");
    if (result != 0 && reason != ENOSPC && reason != EDQUOT && reason != EIO)
        return -1;
    LOG(LOG_EVENT, "%s: New Connection_state %s(%d)", "platform_set_orv_connection_state",
        orv_state_str[code], code);
    apply_status(code);
    return result;
}

/* ---- timers ---- */

void reset_action_pending_cb(void *)
{
    timer_fired(clear_action_pending);
    LOG(LOG_TRACE, "%s: Clearing action_pending status", "reset_action_pending_cb");
    orv_state_action_pending = 0;
}

void status_notify_cb(void *)
{
    timer_fired(status_notify);
    if (da.state >= DA_STATE_CONNECTED) {
        retry_time = 0;
        return;
    }
    retry_time = retry_time >= COUNTDOWN_START ? retry_time - COUNTDOWN_STEP : 0;
    if (!orv_state_action_pending)
        (void)platform_set_orv_connection_state(ORV_CONNECTING, nullptr);
}

void connection_status_reset(void)
{
    timer_disarm(status_notify);
    timer_disarm(clear_action_pending);
}
