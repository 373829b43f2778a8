#include "protocol/wifid-payload.h"

#include <cstring>

#include "agent/da.h"
#include "agent/debug-log.h"
#include "agent/owners.h"
#include "agent/txq.h"
#include "platform/identity.h"
#include "platform/wifid.h"
#include "protocol/message.h"
#include "protocol/session-id.h"

#define MODULE "wifi.c"

/* What both messages begin with; null with a log line. */
static json_ptr new_wrapper(void)
{
    json_ptr message(json_object());
    if (!message) {
        LOG(LOG_FAILURE, "error creating JSON obj");
        return message;
    }
    add_integer(message, "sessId", get_session_id());
    add_text(message, "ap_mac", da.dev_info.eth_mac_addr);
    return message;
}

static int wrap_and_queue(const json_ptr &message, int32_t msgType, json_t *payload, const char *sender)
{
    add_integer(message, "msgType", msgType);
    if (json_object_set(message.get(), "ctrlrPayload", payload) != 0) {
        LOG(LOG_FAILURE, "error creating JSON obj");
        return -1;
    }
    malloc_text text = dump_message(message, sender);
    if (!text)
        return -1;
    int length = static_cast<int>(strlen(text.get())); /* a datagram holds 2047 bytes */
    LOG(LOG_TRACE, "%s: JSON Object:[%d][%s]", sender, length, text.get());
    return queue_text(text);
}

int msg_to_controller(json_t *payload)
{
    json_ptr message = new_wrapper();
    return message ? wrap_and_queue(message, MSG_FROM_WIFID, payload, "msg_to_controller") : -1;
}

int register_msg_to_controller(json_t *payload)
{
    json_ptr message = new_wrapper();
    if (!message)
        return -1;
    char type[IDENTITY_TEXT_SIZE];
    (void)platform_get_type(type);
    add_text(message, "type", type);
    return wrap_and_queue(message, MSG_REGISTER_FROM_WIFID, payload, "register_msg_to_controller");
}

int handle_controller_rsp(const json_t *message)
{
    const json_t *payload = json_object_get(message, "ctrlrPayload");
    if (!payload) {
        malloc_text whole(json_dumps(message, 0));
        LOG(LOG_FAILURE, "no ctrlr payload in controller response%s", whole ? whole.get() : "");
        return -1;
    }
    /* Texts, numbers and the rest are values like objects and arrays. */
    malloc_text text(json_dumps(payload, JSON_ENCODE_ANY));
    if (!text) {
        LOG(LOG_FAILURE, "json dump failed %s", "handle_controller_rsp");
        return -1;
    }
    size_t length = strlen(text.get());
    LOG(LOG_TRACE, "%s: JSON Object:[%zu][%s]", "handle_controller_rsp", length, text.get());
    return send_msg_to_wifid(TO_WIFID_SOCKET, WIFID_CONTROLLER_PAYLOAD, text.get(), length);
}
