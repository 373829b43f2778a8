/*
 * The forms that a configuration update comes in; operations/config-update.cpp has checked the attributes.
 * Results and message buffer are those of platform_set_config.
 */
#pragma once

#include <jansson.h>

/* An object, with the text of its native part or null. */
int apply_object_config(const json_t *config, const json_t *native_config, int overwrite,
                        char *message_buffer);

/* A text in CLI form: the whole stored configuration, or a part of the running one. */
int overwrite_cli_config(const json_t *config, char *message_buffer);
int apply_partial_cli_config(const json_t *config, char *message_buffer);

/* Runs the device's shell on the stored fragment and saves. Always 0: the shell's exit codes tell nothing. */
int platform_apply_partial_config(void);

/* Runs the device's shell on the backup and saves; the flag file and the backup go. */
void platform_revert_to_backup_config(void);

/* Tells the controller how far the update is (406), at once: what follows may hold the loop up, or cut the
 * connection off. */
void tell_config_status(const char *word, const char *text);

/* A file that could not be written: the message for the controller and the status. */
int config_not_writable(char *message_buffer);
