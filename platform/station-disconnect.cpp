#include "platform/station-disconnect.h"

#include <cstring>

#include "agent/debug-log.h"
#include "agent/owners.h"
#include "agent/text.h"
#include "device/scm.h"

#define MODULE "wifi.c"

int (*sta_disconnect_cb)(const char *mac);

static malloc_text delete_client_message(const char *mac)
{
    const std::string whom = strcmp(mac, "ALL") == 0 ? "*" : valid_utf8(mac, strlen(mac));
    json_ptr message(json_pack("{sssbssss}", "mType", "ACTION-REQ", "sync", 0, "cmd", "delete-client", "mac",
                               whom.c_str()));
    return malloc_text(message ? json_dumps(message.get(), 0) : nullptr);
}

int platform_sta_disconnect(const char *mac)
{
    LOG(LOG_EVENT, "NOC Disconnect wlan sta [%s]", mac);
    malloc_text message = delete_client_message(mac);
    malloc_text reply(message ? scm_send_and_recv(message.get()) : nullptr);
    if (!reply) {
        LOG(LOG_FAILURE, "Error initiating client-delete ");
        return 1;
    }
    malloc_text failure(scm_parse_action_rsp(reply.get()));
    if (failure) {
        LOG(LOG_FAILURE, "Error: %s", failure.get());
        return 1;
    }
    return 0;
}

void install_station_disconnect(void) { sta_disconnect_cb = platform_sta_disconnect; }
