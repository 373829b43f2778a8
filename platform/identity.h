/*
 * Who this device is: gathered once at start into da.dev_info, from the kernel, the system image and the
 * maker's utility library.
 */
#pragma once

/* Size of the texts the accessors fill. */
enum { IDENTITY_TEXT_SIZE = 128 };

/*
 * Fills da.dev_info, starts the parent-MAC listener, opens the front end's socket and sets the log level from
 * the device's configuration. Always 0: a step that fails logs and leaves its field empty.
 */
int platform_init_dev_info(void);

/*
 * The part of it that only reads: MAC, versions, product name, serial number. For whoever wants to know the
 * device without being the agent.
 */
void platform_read_identity(void);

/* Platform type word ("Quill"), model code ("SA"), operating mode ("wi-fi"), parent MAC. Each returns 0. */
int platform_get_type(char (&out)[IDENTITY_TEXT_SIZE]);
int platform_get_model(char (&out)[IDENTITY_TEXT_SIZE]);
int platform_get_operating_mode(char (&out)[IDENTITY_TEXT_SIZE]);
int platform_get_parent_mac(char (&out)[IDENTITY_TEXT_SIZE]);

/* The Ethernet MAC; without one no controller may be contacted, so an empty text ends the process. */
const char *get_mac(void);

/* Sets da.debug_level from the item "logging_syslog_sev" of the device's configuration, when it is there. */
void set_log_level(void);
