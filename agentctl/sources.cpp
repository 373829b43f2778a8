#include "agentctl/sources.h"

#include <cstring>

#include <fcntl.h>
#include <unistd.h>

#include "agent/build-constants.h"
#include "agent/da.h"
#include "agent/owners.h"
#include "agent/text.h"
#include "discovery/cert-verify.h"
#include "discovery/discover-orv.h"
#include "platform/state-files.h"

static const int32_t CLOUD_PORT = 443;

/* Takes a found URL apart as discovery does. */
static void examine(address_source *source)
{
    char host[CANDIDATE_HOST_SIZE] = "";
    if (parse_orv_url(source->url.c_str(), host, &source->port) != 0) {
        source->state = SOURCE_IS_INVALID;
        return;
    }
    source->state = SOURCE_IS_CANDIDATE;
    source->host = host;
}

static address_source from_file(controller_source file, int (*read)(char (&)[URL_TEXT_SIZE]))
{
    const controller_source_row &row = controller_sources[file];
    address_source source = {row.name, row.path, SOURCE_IS_ABSENT, "", "", 0, false};
    char url[URL_TEXT_SIZE] = "";
    if (read(url) == 0) {
        source.url = url;
        examine(&source);
    }
    return source;
}

std::vector<address_source> read_address_sources(void)
{
    address_source fixed = from_file(SOURCE_STATIC_URL, platform_get_static_url);
    if (static_orv_url[0] != '\0')
        fixed.place = "option -s of the agent";
    if (fixed.state == SOURCE_IS_CANDIDATE &&
        strncmp(fixed.host.c_str(), ORVANTA_CLOUD_HOST, strlen(ORVANTA_CLOUD_HOST)) == 0)
        fixed.state = SOURCE_IS_PASSED_OVER;
    fixed.final = fixed.state == SOURCE_IS_CANDIDATE || fixed.state == SOURCE_IS_INVALID;

    address_source option_43 = from_file(SOURCE_DHCP_43, platform_get_dhcp43_url);
    option_43.final = option_43.state != SOURCE_IS_ABSENT;

    address_source option_15 = from_file(SOURCE_DHCP_15, platform_get_dhcp15_url);

    address_source cloud = {
        "default cloud", "built in", SOURCE_IS_CANDIDATE, ORVANTA_CLOUD_HOST, ORVANTA_CLOUD_HOST,
        CLOUD_PORT,      true};
    return {fixed, option_43, option_15, cloud};
}

void use_static_url(const std::string &url) { copy_format_text(static_orv_url, url.c_str()); }

certificate_rule certificate_rule_for(const std::string &url)
{
    copy_text(da.orv_url, url.c_str());
    /* That the marker is missing is told on standard error: good in the agent's output, noise here. */
    fd_guard spoken(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3));
    fd_guard nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
    dup2(nowhere.fd, STDERR_FILENO);
    bool checked = allow_all_certs() != 0; /* mind the sense: 0 is "all are allowed" */
    dup2(spoken.fd, STDERR_FILENO);
    if (checked)
        return CERTIFICATE_CHECKED;
    return strstr(da.orv_url, ORVANTA_CLOUD_HOST) ? CERTIFICATE_ALLOW_ALL : CERTIFICATE_ON_PREMISES;
}

const char *certificate_rule_text(certificate_rule rule)
{
    switch (rule) {
    case CERTIFICATE_CHECKED: return "checked";
    case CERTIFICATE_ON_PREMISES: return "not checked (the controller is on premises)";
    default: return "not checked (" ALLOW_ALL_FILE " is there)";
    }
}
