#include "platform/identity.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agent/da.h"
#include "agent/debug-log.h"
#include "agent/fatal.h"
#include "agent/hooks.h"
#include "agent/owners.h"
#include "agent/text.h"
#include "agent/utils.h"
#include "device/scmintf.h"
#include "device/tavosutils.h"
#include "platform/config-version.h"
#include "platform/parent-mac.h"
#include "platform/sku.h"
#include "platform/state-files.h"

#define MODULE "wifi.c"

#define ETH0_ADDRESS_FILE "/sys/class/net/eth0/address"
#define VERSION_FILE "/etc/version"

enum {
    MAC_TEXT_LENGTH = 17,
    ACCOUNT_ID_LENGTH = 128,
    SCM_PRINT_LEVEL = 3,
};

static const sku_entry &this_sku(void) { return find_sku(get_sku(), get_device_model()); }

/* ---- the steps of platform_init_dev_info ---- */

static void read_eth_mac(void)
{
    char text[MAC_TEXT_LENGTH + 1];
    if (read_value_file(ETH0_ADDRESS_FILE, text, MAC_TEXT_LENGTH) != 0) {
        LOG(LOG_FAILURE, "Failed to open file %s", ETH0_ADDRESS_FILE);
        return;
    }
    copy_text(da.dev_info.eth_mac_addr, text);
    size_t length = strlen(text);
    if (length == MAC_TEXT_LENGTH)
        LOG(LOG_TRACE, "Ethernet MAC [%s] len %d", text, MAC_TEXT_LENGTH);
    else
        LOG(LOG_FAILURE, "Invalid MAC len");
}

/*
 * Looks for the version in one line. "=" separates, several of them count as one; the text after the word
 * "VERSION" is the version. `found_key` is kept from line to line: a line that ends right after the word
 * leaves its value to the next. A value counts only when its line ends in a newline, so a file that was cut
 * short gives none. Returns true when the search is over.
 */
static bool scan_version_line(char *line, bool *found_key)
{
    size_t length = strlen(line);
    bool whole = length > 0 && line[length - 1] == '\n';
    if (whole)
        line[length - 1] = '\0';
    char *rest = nullptr;
    for (char *token = strtok_r(line, "=", &rest); token; token = strtok_r(nullptr, "=", &rest)) {
        if (*found_key) {
            if (!whole)
                return true;
            copy_text(da.dev_info.sw_version, token);
            LOG(LOG_TRACE, "sw_version - (%s)", da.dev_info.sw_version);
            return true;
        }
        *found_key = strcmp(token, "VERSION") == 0;
    }
    return false;
}

static void read_sw_version(void)
{
    file_ptr file(fopen(VERSION_FILE, "re"));
    if (!file) {
        LOG(LOG_FAILURE, "Failed to open file");
        return;
    }
    char line[256];
    bool found_key = false;
    while (fgets(line, sizeof(line), file.get()))
        if (scan_version_line(line, &found_key))
            return;
}

static void set_hw_version(void)
{
    const sku_entry &row = this_sku();
    if (row.hw_version)
        copy_text(da.dev_info.hw_version, row.hw_version);
    else
        snprintf(da.dev_info.hw_version, sizeof(da.dev_info.hw_version), "%d", get_sku());
    LOG(LOG_TRACE, "Hardware version : [%s]\n", da.dev_info.hw_version);
}

/* Erased storage reads as 0xFF bytes: a serial number has at least one other. */
static bool is_written(const char *text)
{
    for (const char *at = text; *at; at++)
        if (static_cast<unsigned char>(*at) < 0xFF)
            return true;
    return false;
}

static void read_serial_number(void)
{
    char text[SERIAL_NUMBER_SIZE] = "";
    int length = 0;
    int result = get_serial_number(text, &length);
    text[sizeof(text) - 1] = '\0'; /* another library may fill all 128 bytes */
    if (result != 0) {
        LOG(LOG_FAILURE, "Failed to get MSN ret=%d", result);
    } else if (is_written(text)) {
        copy_text(da.dev_info.serial_number, text);
        LOG(LOG_TRACE, "MSN [%s]", da.dev_info.serial_number);
    } else {
        LOG(LOG_TRACE, "MSN unavailable (%d)", length);
    }
}

static void read_account_id(void)
{
    char text[ACCOUNT_ID_LENGTH + 1];
    if (read_value_file(ACCOUNT_ID_FILE, text, ACCOUNT_ID_LENGTH) == 0)
        copy_text(da.dev_info.account_id, text);
    else
        LOG(LOG_EVENT, "AccountId unavailable");
}

/* What the configuration daemon's library has to say belongs in the system log. */
static void print_to_system_log(const char *file, int line, const char *message)
{
    clog_print(SCM_PRINT_LEVEL, "%s (%s:%d)", message, file, line);
}

void platform_read_identity(void)
{
    read_eth_mac();
    read_sw_version();
    set_hw_version();
    copy_text(da.dev_info.other_sw_version, get_other_version());
    copy_text(da.dev_info.product_name, this_sku().product_name);
    read_serial_number();
}

int platform_init_dev_info(void)
{
    platform_read_identity();
    (void)platform_init_config_version();
    read_account_id();
    scmintf_print = print_to_system_log;
    clog_set_daemonname("device-agent");
    (void)platform_start_pmac_listener();
    (void)call_hook(hooks.platform_fcgi_server_init);
    set_log_level();
    call_hook(hooks.install_station_disconnect);
    return 0;
}

/* ---- single values ---- */

int platform_get_type(char (&out)[IDENTITY_TEXT_SIZE])
{
    copy_text(out, this_sku().type);
    return 0;
}

int platform_get_model(char (&out)[IDENTITY_TEXT_SIZE])
{
    copy_text(out, this_sku().model);
    return 0;
}

int platform_get_operating_mode(char (&out)[IDENTITY_TEXT_SIZE])
{
    copy_text(out, "wi-fi");
    return 0;
}

int platform_get_parent_mac(char (&out)[IDENTITY_TEXT_SIZE])
{
    copy_text(out, da.dev_info.parent_mac);
    return 0;
}

const char *get_mac(void)
{
    fatal_assert(strlen(da.dev_info.eth_mac_addr));
    return da.dev_info.eth_mac_addr;
}

/* ---- log level ---- */

/* Syslog severities 1..7 as levels of the agent's log; any other leaves the level alone. */
void set_log_level(void)
{
    static const int32_t levels[] = {0, 0, 0, 1, 1, 2, 3};
    const int count = sizeof(levels) / sizeof(levels[0]);
    malloc_text value(db_read("logging_syslog_sev"));
    if (!value)
        return;
    int severity = text_to_int(value.get());
    LOG(LOG_TRACE, "%s: syslog severity=%d", "set_log_level", severity);
    if (severity >= 1 && severity <= count)
        da.debug_level = levels[severity - 1];
}
