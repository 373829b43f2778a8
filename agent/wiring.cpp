#include "agent/wiring.h"

#include "agent/cfg-restore-timer.h"
#include "agent/config-change.h"
#include "agent/da.h"
#include "agent/hooks.h"
#include "agent/state-connected.h"
#include "agent/state-connecting.h"
#include "agent/state-disconnected.h"
#include "agent/state-discovery.h"
#include "agent/state-idle.h"
#include "agent/ws-session.h"
#include "operations/config-restore.h"
#include "operations/exec-cmd.h"
#include "operations/front-end-requests.h"
#include "operations/fw-download.h"
#include "operations/log-stream.h"
#include "operations/radio-scan.h"
#include "operations/upgrade-state.h"
#include "operations/wifid-listener.h"
#include "operations/wifiperf.h"
#include "platform/event-trap.h"
#include "platform/front-end.h"
#include "platform/heartbeat.h"
#include "platform/station-disconnect.h"
#include "protocol/dispatcher.h"
#include "stats/stats-timers.h"

void install_hooks(void)
{
    /* connection states */
    hooks.state_entry[DA_STATE_IDLE] = enter_idle;
    hooks.state_entry[DA_STATE_DISCOVERY] = enter_discovery;
    hooks.state_entry[DA_STATE_CONNECTING] = enter_connecting;
    hooks.state_entry[DA_STATE_CONNECTED] = enter_connected;
    hooks.state_entry[DA_STATE_DISCONNECTED] = enter_disconnected;

    /* the device */
    hooks.beat = platform_update_heartbeat;
    hooks.address_changed = leave_for_new_address;
    hooks.start_cfg_restore_timer = start_cfg_restore_timer;

    /* websocket session */
    ws_session_init();
    hooks.handle_orv_msg = handle_orv_msg;
    hooks.wait_for_reconnect = wait_for_reconnect;
    hooks.cancel_periodic_stats = cancel_stats_timers;

    /* configuration: the safety net of an update */
    hooks.platform_cancel_cfg_restore = platform_cancel_cfg_restore;
    hooks.platform_restore_cfg = platform_restore_cfg;

    /* troubleshooting commands */
    hooks.parse_exec_cmd = parse_exec_cmd;
    hooks.start_exec_cmd = start_exec_cmd;
    hooks.abort_exec_cmd = abort_exec_cmd;
    hooks.stop_wifiperf = stop_running_wifiperf;
    /* software upgrade: told in REGISTER, and ended by it */
    hooks.sw_update_state = platform_get_upgrade_status;
    hooks.stop_fw_dl_process = stop_fw_dl_process;

    /* local programs */
    hooks.append_logs = append_logs;
    hooks.write_to_fcgi = write_to_fcgi;
    hooks.log_server_init = log_server_init;
    hooks.platform_event_listener = platform_event_listener;
    hooks.platform_fcgi_server_init = platform_fcgi_server_init;
    hooks.parse_radio_scan_request = parse_radio_scan_request;
    hooks.install_station_disconnect = install_station_disconnect;
    hooks.device_agent_msg_from_wifid_callback_init = device_agent_msg_from_wifid_callback_init;
}
