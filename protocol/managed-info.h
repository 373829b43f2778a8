/*
 * The managed-information message: whether the controller manages this device, for which account, and until
 * when.
 */
#pragma once

#include <jansson.h>

/*
 * Applies "managed", "accountId" and "hwExpiryDate"; members of another type change nothing. Returns 0, or
 * INTERNAL_ERROR with the error text set when there is no object.
 */
int parse_managed_info(const json_t *obj, char *error_text);
