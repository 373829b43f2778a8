#include "agent/state-discovery.h"

#include <cstring>
#include <string>

#include <http_parser.h>

#include "agent/da.h"
#include "agent/debug-log.h"
#include "agent/enter-state.h"
#include "agent/state-idle.h"
#include "agent/text.h"
#include "agent/utils.h"
#include "agent/ws-target.h"
#include "discovery/discover-orv.h"
#include "discovery/url.h"
#include "platform/connection-status.h"

#define MODULE "device-agent.c"

enum { HTTPS_PORT = 443 };

/* Splits the controller's URL. Returns false, with the reason logged, when it is none. */
static bool split_controller_url(const char *url, parsed_url *parts)
{
    struct http_parser_url parsed;
    http_parser_url_init(&parsed);
    int error = http_parser_parse_url(url, strlen(url), 0, &parsed);
    if (error != 0) {
        LOG(LOG_FAILURE, "Parse error : %d\n", error);
        return false;
    }
    if (get_parsed_url_details(url, &parsed, parts) != 0) {
        LOG(LOG_FAILURE, "Failed to get orv_parsed_url details ");
        return false;
    }
    return true;
}

/* The id comes from the network and goes into a request line: only what cannot end that line may pass. */
static bool is_sendable(const char *device_id)
{
    for (const char *at = device_id; *at; at++)
        if (*at <= ' ' || *at >= 0x7F)
            return false;
    return true;
}

/* Host, port and path with query, ready for the websocket. */
static void set_target(const parsed_url &url)
{
    const char *mac = da.dev_info.eth_mac_addr;
    const char *path = url.path[0] ? url.path : "/";
    copy_text(ws_target.host, url.host);
    ws_target.port = url.port[0] ? text_to_int(url.port) : HTTPS_PORT;
    std::string path_and_query = std::string(path) + "?mac=" + mac;
    if (!is_sendable(da.deviceId))
        LOG(LOG_FAILURE, "%s: deviceId cannot be sent, left out", "da_enter_state");
    else if (da.deviceId[0] && !da.dhcp15_allowed)
        path_and_query += std::string("&deviceId=") + da.deviceId;
    copy_text(ws_target.path, path_and_query.c_str());
}

/* Returns true when the target is set. Where it fails the reason is logged, and shown where users can help.
 */
static bool find_target(uint32_t generation)
{
    if (discover_orv() != 0) {
        if (generation == state_generation)
            LOG(LOG_FAILURE, "Unable to discover Orvanta URL (re-discover in %d seconds)", idle_timeout);
        return false;
    }
    const char *url = get_orv_url();
    if (!url) {
        LOG(LOG_FAILURE, "Not able to get orv url ");
        return false;
    }
    static parsed_url parts; /* nearly 3 KiB */
    if (!split_controller_url(url, &parts))
        return false;
    char address[ADDRESS_TEXT_SIZE];
    if (hostname_to_ip(parts.host, address) != 0) {
        LOG(LOG_FAILURE, "Failed to resolve redirect URL [%s]", parts.host);
        set_discover_idle_time_out();
        platform_set_orv_connection_state(ORV_RESOLVING_URL, nullptr);
        return false;
    }
    set_target(parts);
    LOG(LOG_TRACE, "Make Websocket connection to %s : %d : path = %s", ws_target.host, ws_target.port,
        ws_target.path);
    return true;
}

void enter_discovery(void)
{
    if (discovery_timer.handle && timer_expired(discovery_timer.handle))
        timer_fired(discovery_timer);
    LOG(LOG_EVENT, "%s:DA_STATE_DISCOVERY", "da_enter_state");

    /* SIGUSR1 may strike while the onboarding waits: the pass that it began goes on, this one ends here. */
    uint32_t generation = state_generation;
    bool found = find_target(generation);
    if (generation != state_generation)
        return;
    da_enter_state(found ? DA_STATE_CONNECTING : DA_STATE_IDLE);
}
