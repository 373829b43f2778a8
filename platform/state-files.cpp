#include "platform/state-files.h"

#include <cstdio>
#include <cstring>
#include <string>

#include <unistd.h>

#include "agent/da.h"
#include "agent/debug-log.h"
#include "agent/hooks.h"
#include "agent/owners.h"
#include "agent/state-file.h"
#include "agent/text.h"
#include "agent/utils.h"
#include "device/tavosutils.h"

#define MODULE "wifi.c"

#define OPTION_15_HOST "orvanta"

enum {
    TOKEN_FILE_LENGTH = 257,
};

/* ---- the controller's URL ---- */

static int url_found(const char *function, const char *url)
{
    if (url[0] == '\0')
        return -1;
    LOG(LOG_EVENT, "%s: orv_url [%s]", function, url);
    return 0;
}

int platform_get_static_url(char (&url)[URL_TEXT_SIZE])
{
    if (static_orv_url[0] != '\0') {
        forget_controller_sources(SOURCE_STATIC_URL); /* the file has no say */
        copy_text(url, static_orv_url);
    } else {
        copy_text(url, consult_controller_source(SOURCE_STATIC_URL).c_str());
    }
    return url_found("platform_get_static_url", url);
}

int platform_get_dhcp43_url(char (&url)[URL_TEXT_SIZE])
{
    copy_text(url, consult_controller_source(SOURCE_DHCP_43).c_str());
    return url_found("platform_get_dhcp43_url", url);
}

int platform_get_dhcp15_url(char (&url)[URL_TEXT_SIZE])
{
    std::string domain = consult_controller_source(SOURCE_DHCP_15);
    if (domain.empty())
        return -1;
    snprintf(url, sizeof(url), "https://%s.%s", OPTION_15_HOST, domain.c_str());
    LOG(LOG_TRACE, "%s: Domain [%s] Option15 based URL [%s]", "platform_get_dhcp15_url", domain.c_str(), url);
    return 0;
}

/* ---- the onboarding service's cookie ---- */

int platform_save_deviceId_cookie(const char *cookie)
{
    LOG(LOG_TRACE, "%s: ENTRY", "platform_save_deviceId_cookie");
    return replace_file(DEVICE_ID_COOKIE_FILE, cookie);
}

int platform_get_deviceId_cookie(char *out, size_t size)
{
    LOG(LOG_TRACE, "%s: ENTRY", "platform_get_deviceId_cookie");
    return read_value_file(DEVICE_ID_COOKIE_FILE, out, size - 1) == 0 && out[0] != '\0' ? 0 : -1;
}

int platform_delete_device_id_cookie(void)
{
    (void)unlink(DEVICE_ID_COOKIE_FILE);
    return 0;
}

/* ---- the account ---- */

static void empty_token(void)
{
    da.dev_info.velmora_id[0] = '\0';
    da.dev_info.velmora_token[0] = '\0';
}

int platform_find_velmora_id_token(void)
{
    empty_token(); /* what the file does not hold now is not sent */
    char text[TOKEN_FILE_LENGTH + 1];
    if (read_value_file(VELMORA_ID_FILE, text, TOKEN_FILE_LENGTH) != 0 || text[0] == '\0')
        return -1;
    char *rest = nullptr;
    if (const char *id = strtok_r(text, ":", &rest))
        copy_format_text(da.dev_info.velmora_id, id);
    if (const char *token = strtok_r(nullptr, ":", &rest))
        copy_format_text(da.dev_info.velmora_token, token);
    return 0;
}

int platform_clear_velmora_id_token(void)
{
    empty_token();
    (void)unlink(VELMORA_ID_FILE);
    return 0;
}

int platform_set_account_id(void)
{
    const char *id = da.dev_info.account_id;
    LOG(LOG_TRACE, "set account_id [%s]", id);
    if (id[0] == '\0') {
        LOG(LOG_TRACE, "Clear account_id file");
        (void)unlink(ACCOUNT_ID_FILE);
        return 0;
    }
    LOG(LOG_TRACE, "Write account_id [%s] to file", id);
    if (replace_file(ACCOUNT_ID_FILE, id) != 0) {
        LOG(LOG_FAILURE, "Unable to open config version file for writing");
        return -1;
    }
    return 0;
}

/* ---- the configuration ---- */

int platform_device_reconfigured(void) { return access(DEVICE_RECONFIGURED_FILE, F_OK) == 0 ? 0 : -1; }

void platform_mark_device_reconfigured(void)
{
    if (replace_file(DEVICE_RECONFIGURED_FILE, "") != 0)
        LOG(LOG_FAILURE, "Failed to create %s", DEVICE_RECONFIGURED_FILE);
    else if (da.state != DA_STATE_CONNECTED)
        call_hook(hooks.start_cfg_restore_timer);
}

int platform_ntp_configured(void)
{
    malloc_text server(db_read("ntp_server"));
    return server && server.get()[0] != '\0' ? 0 : -1;
}

/* ---- fixed answers ---- */

const char *platform_ca_certs_path(void) { return CA_CERTS_PATH; }

const char *platform_root_ca_path(void) { return ROOT_CA_FILE; }

bool platform_zero_touch_enabled(void) { return false; }
