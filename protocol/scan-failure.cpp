#include "protocol/scan-failure.h"

#include <cstring>

#include "agent/owners.h"
#include "platform/front-end.h"
#include "protocol/error-codes.h"
#include "protocol/message.h"

int32_t orv_radio_scan = 1;

void send_scan_failure_msg(const char *text)
{
    json_ptr message = new_message(MSG_RADIO_SCAN_FAILURE);
    add_text(message, "code", err_code_str[BAD_REQUEST]);
    add_text(message, "message", text);
    malloc_text dump = dump_message(message, "send_scan_failure_msg");
    if (!dump)
        return;
    if (orv_radio_scan == 1)
        (void)queue_text(dump);
    else
        (void)write_to_fcgi(dump.get(), strlen(dump.get()));
}
