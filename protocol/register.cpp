#include "protocol/register.h"

#include <unistd.h>

#include "agent/da.h"
#include "agent/debug-log.h"
#include "agent/hooks.h"
#include "device/tavosutils.h"
#include "platform/config-version.h"
#include "platform/identity.h"
#include "platform/state-files.h"
#include "protocol/directives.h"
#include "protocol/error-codes.h"
#include "protocol/message.h"
#include "protocol/received.h"
#include "protocol/session-id.h"

#define MODULE "device-agent.c"

/* The texts that are looked up afresh for each REGISTER. */
struct current_facts {
    char parent_mac[IDENTITY_TEXT_SIZE] = "";
    char type[IDENTITY_TEXT_SIZE] = "";
    char model[IDENTITY_TEXT_SIZE] = "";
    char mode[IDENTITY_TEXT_SIZE] = "";
    char hostname[256] = "";
};

static void look_up(current_facts *facts)
{
    platform_get_parent_mac(facts->parent_mac);
    platform_get_type(facts->type);
    platform_get_model(facts->model);
    platform_get_operating_mode(facts->mode);
    gethostname(facts->hostname, sizeof(facts->hostname) - 1);
    LOG(LOG_TRACE, "hostname [%s]", facts->hostname);
    get_device_ip(da.dev_info.ip_addr);
    LOG(LOG_TRACE, "dev_ip [%s]", da.dev_info.ip_addr);
}

int build_and_send_register(void)
{
    current_facts facts;
    look_up(&facts);
    const device_info &device = da.dev_info;

    json_ptr message = new_message(MSG_REGISTER);
    add_integer(message, "sessId", get_session_id());
    add_text(message, "mac", device.eth_mac_addr);
    add_text(message, "pMAC", facts.parent_mac);
    add_text(message, "serialNo", device.serial_number);
    add_text(message, "type", facts.type);
    add_text(message, "model", facts.model);
    add_text(message, "productName", device.product_name);
    add_text(message, "hostname", facts.hostname);
    add_text(message, "ipAddress", device.ip_addr);
    add_text(message, "mode", facts.mode);
    add_integer(message, "configVersion", platform_get_da_config_version());
    add_text(message, "activeSwVersion", device.sw_version);
    add_text(message, "inActiveSwVersion", device.other_sw_version);
    add_text(message, "hwVersion", device.hw_version);
    add_text(message, "daVersion", DA_VERSION);
    add_integer(message, "swUpdateState", call_hook(hooks.sw_update_state));
    /* A download of an earlier connection ends here, after its state was told. */
    call_hook(hooks.stop_fw_dl_process);
    json_object_set_new(message.get(), "lumira", json_true());

    malloc_text text = dump_message(message, "build_and_send_register");
    if (text)
        LOG(LOG_TRACE, "%s: JSON Object: [%s]", "build_and_send_register", text.get());
    return queue_text(text);
}

static int accept_registration(const json_t *obj)
{
    int64_t controller_time = json_integer_value(json_object_get(obj, "orvTime"));
    if (controller_time != 0 && platform_ntp_configured() == -1) {
        LOG(LOG_TRACE, "%s: set device time", "parse_register_response");
        (void)set_system_time(controller_time);
    }
    return NO_ERROR;
}

static int refuse_registration(const json_t *obj, char *error_text)
{
    if (!obj) {
        set_error_text(error_text, "Not able to parse register json response from orv server NG");
        LOG(LOG_FAILURE, "%s", error_text);
        return BAD_REQUEST;
    }
    LOG(LOG_FAILURE, "Registration failed with Orvanta code %s msg %s", received_text(obj, "code"),
        received_text(obj, "message"));
    return NO_ERROR;
}

int parse_register_response(int32_t msgType, const json_t *obj, char *error_text)
{
    return msgType == MSG_REGISTER_FAILED ? refuse_registration(obj, error_text) : accept_registration(obj);
}
