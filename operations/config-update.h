/*
 * The controller's configuration update (106): {"config": object or text, "nativeConfig": text, "overwrite":
 * boolean}. An object goes to the configuration daemon, a text in CLI form either replaces the stored
 * configuration and reboots the device, or is applied in place by the device's shell. Before anything
 * changes the stored configuration is saved; progress is told with 406 messages.
 */
#pragma once

#include <jansson.h>

/*
 * Handler of the dispatcher. 0: applied, or only a native part, which does nothing alone. BAD_REQUEST:
 * attributes of another shape, or refused by the configuration daemon, whose text is the message.
 * INTERNAL_ERROR: a file could not be written. -1: no request. Blocks for the tools and, for an object, at
 * most 10 s in each of the daemon's two calls.
 */
int parse_and_apply_config(const json_t *request, char *message_buffer);
int platform_set_config(const json_t *request, char *message_buffer);
