#include "protocol/managed-info.h"

#include "agent/da.h"
#include "agent/text.h"
#include "platform/state-files.h"
#include "protocol/error-codes.h"

enum { MANAGED_TEXT_SIZE = 128 }; /* what is kept of an account id or a date, with the NUL */

int parse_managed_info(const json_t *obj, char *error_text)
{
    if (!obj) {
        set_error_text(error_text, "jobj is NULL, ideally this should never happen");
        return INTERNAL_ERROR;
    }
    const json_t *managed = json_object_get(obj, "managed");
    if (json_is_boolean(managed))
        da.mgmt_flag = json_is_true(managed) ? 1 : 0;

    const json_t *account = json_object_get(obj, "accountId");
    if (json_is_string(account)) {
        /* The value itself is the format text; an empty one clears. */
        expand_format_text(da.dev_info.account_id, MANAGED_TEXT_SIZE, json_string_value(account));
        platform_set_account_id();
    }
    const json_t *expiry = json_object_get(obj, "hwExpiryDate");
    if (json_is_string(expiry))
        expand_format_text(da.dev_info.hw_expiry_date, MANAGED_TEXT_SIZE, json_string_value(expiry));
    return NO_ERROR;
}
