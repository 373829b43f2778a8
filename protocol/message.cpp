#include "protocol/message.h"

#include <cstring>

#include "agent/debug-log.h"
#include "agent/text.h"
#include "agent/txq.h"
#include "protocol/error-codes.h"

#define MODULE "common.c"

json_ptr new_message(int32_t msgType)
{
    json_ptr message(json_object());
    add_integer(message, "msgType", msgType);
    return message;
}

void add_text(const json_ptr &object, const char *key, const char *text)
{
    const char *given = text ? text : "";
    json_object_set_new(object.get(), key, json_string(valid_utf8(given, strlen(given)).c_str()));
}

void add_integer(const json_ptr &object, const char *key, int64_t value)
{
    json_object_set_new(object.get(), key, json_integer(value));
}

malloc_text dump_message(const json_ptr &message, const char *sender)
{
    malloc_text text(json_dumps(message.get(), JSON_PRESERVE_ORDER));
    if (!text)
        LOG(LOG_FAILURE, "json dump failed %s", sender);
    return text;
}

int queue_text(const malloc_text &text)
{
    return text ? write_to_orv(text.get(), strlen(text.get()), 0) : -1;
}

int send_failure_msg(int32_t msgType, int status, const char *message)
{
    if (status < 0 || status >= ERR_CODE_COUNT)
        status = BAD_REQUEST;
    json_ptr reply = new_message(msgType);
    add_text(reply, "code", err_code_str[status]);
    add_text(reply, "message", message);
    return queue_text(dump_message(reply, "send_failure_msg"));
}

int send_success_msg(int32_t msgType)
{
    return queue_text(dump_message(new_message(msgType), "send_success_msg"));
}
