/*
 * The small values that survive a restart under "/mnt/flash/config/" and those that other local programs hand
 * over under "/tmp/". Each file holds one value; one trailing newline is dropped when reading, an empty file
 * counts as absent. What the agent writes, it writes without a newline and replaces whole.
 */
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/controller-sources.h"

#define DEVICE_ID_COOKIE_FILE "/mnt/flash/config/device_id_cookie"
#define VELMORA_ID_FILE "/mnt/flash/config/velmora_id"
#define ACCOUNT_ID_FILE "/mnt/flash/config/account_id"
#define ALLOW_ALL_FILE "/mnt/flash/config/ALLOW_ALL"
#define DEVICE_RECONFIGURED_FILE "/mnt/flash/config/DEVICE_RECONFIGURED"
#define CA_CERTS_PATH "/etc/ssl/certs/"
#define ROOT_CA_FILE "/etc/velmora/rootCA.pem"

/*
 * Sources of the controller's URL. Each fills the text and returns 0, or returns -1 when it has none (missing
 * or empty file). A URL from the command line (-s) wins over the static URL file. What they read is
 * remembered as discovery's knowledge, see platform/controller-sources.h.
 */
int platform_get_static_url(char (&url)[URL_TEXT_SIZE]);
int platform_get_dhcp43_url(char (&url)[URL_TEXT_SIZE]);
/* From the DNS domain of DHCP option 15: "https://orvanta.DOMAIN". */
int platform_get_dhcp15_url(char (&url)[URL_TEXT_SIZE]);

/* The device id that the onboarding service gave us; saving returns -1 when the file cannot be written. */
int platform_save_deviceId_cookie(const char *cookie);
int platform_get_deviceId_cookie(char *out, size_t size);
int platform_delete_device_id_cookie(void);

/*
 * The account token "id:token", for one successful redirect only. Finding fills velmora_id and velmora_token
 * of da.dev_info, -1 when the file is missing; clearing empties both and removes the file.
 */
int platform_find_velmora_id_token(void);
int platform_clear_velmora_id_token(void);

/* Saves da.dev_info.account_id, or removes the file when it is empty. -1 when the file cannot be written. */
int platform_set_account_id(void);

/* 0 when a configuration was applied that has not yet seen the controller again (the flag file exists). */
int platform_device_reconfigured(void);

/* Creates the flag file; a failure is logged. Where the connection is gone already the way back is armed
 * here: the idle state looked too early. */
void platform_mark_device_reconfigured(void);

/* Where the system's CA certificates are, looked up by hash; and a root certificate that no flow here loads.
 */
const char *platform_ca_certs_path(void);
const char *platform_root_ca_path(void);

/* This platform never onboards without credentials. */
bool platform_zero_touch_enabled(void);

/* 0 when an NTP server is configured ("ntp_server" of the device's configuration is not empty), -1 when not.
 */
int platform_ntp_configured(void);
