/*
 * What the upgrade script's exit statuses mean, in the words that the controller gets.
 */
#pragma once

enum {
    UPGRADE_RESULT_UNKNOWN = 14, /* also the row of every status that has none */
    UPGRADE_RESULT_COUNT = 15,
};

struct upgrade_result {
    const char *state, *message;
};

/* The row of an exit status; one that is below 0 or above 14 gets that of 14. */
const upgrade_result &find_upgrade_result(int exit_status);
