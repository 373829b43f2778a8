/*
 * Statuses of request handlers and the text that explains a failure to the controller.
 */
#pragma once

#include <cstddef>

/* 0 is success; the failure reply carries the name of any other one. */
enum {
    NO_ERROR = 0,
    BAD_REQUEST = 1,
    DEVICE_NOT_FOUND = 2,
    FW_UPDATE_IN_PROGRESS = 3,
    OUT_OF_RANGE_INPUT = 4,
    INVALID_INPUT = 5,
    INVALID_MESSAGE_TYPE = 6,
    INTERNAL_ERROR = 7,
    OPERATION_TIMED_OUT = 8,
    SERVER_BUSY = 9,
    UPLOAD_IN_PROGRESS = 10,
    ERR_CODE_COUNT = 11,
};
extern const char *const err_code_str[ERR_CODE_COUNT];

/* A failing handler writes its text here; the dispatcher sends it as the "message" of the failure reply. */
enum {
    ERROR_STRING_SIZE = 1025,
    ERROR_TEXT_LENGTH = 1023, /* the longest text that is put there */
};
extern char error_string[ERROR_STRING_SIZE];

/* Writes at most ERROR_TEXT_LENGTH characters into an error text of that size. */
void set_error_text(char *error_text, const char *format, ...) __attribute__((format(printf, 2, 3)));
