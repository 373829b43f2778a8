#include "protocol/error-codes.h"

#include <cstdarg>
#include <cstdio>

const char *const err_code_str[ERR_CODE_COUNT] = {
    "No ERROR",          "BadRequest",   "DeviceNotFound",     "FwUpdateInProgress",
    "OutOfRangeInput",   "InvalidInput", "InvalidMessageType", "InternalError",
    "OperationTimedOut", "ServerBusy",   "UploadInProgress",
};

char error_string[ERROR_STRING_SIZE];

void set_error_text(char *error_text, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(error_text, ERROR_TEXT_LENGTH + 1, format, arguments);
    va_end(arguments);
}
