#include "agentctl/check-onboarding.h"

#include <cstring>
#include <ctime>

#include "agent/da.h"
#include "agent/owners.h"
#include "agent/text.h"
#include "agentctl/check-step.h"
#include "agentctl/read-only.h"
#include "discovery/http-header.h"
#include "discovery/onboarding-request.h"
#include "discovery/onboarding-response.h"
#include "discovery/tls-session.h"

/* Discovery keeps shorter ones only. */
enum { LOCATION_LIMIT = 256, COOKIE_LIMIT = 128 };

bool leave_out_token(std::string *request)
{
    size_t from = request->find("&velmoraId=");
    size_t to = request->find(" HTTP/1.1\r\n");
    if (from == std::string::npos || to == std::string::npos || to < from)
        return false;
    request->erase(from, to - from);
    return true;
}

int64_t http_date(const std::string &header)
{
    size_t at = header.find("\r\nDate: ");
    struct tm parts = {};
    if (at == std::string::npos || !strptime(header.c_str() + at + 8, "%a, %d %b %Y %H:%M:%S GMT", &parts))
        return 0;
    return timegm(&parts);
}

/* The answer, by the rules of the agent's exchange and of the look-up around it. */
struct onboarding_answer {
    std::string status_line;
    std::string header;
    std::string location;
    std::string trouble; /* why it is no good; empty when it is */
};

static std::string header_trouble(const char *text, int32_t length, std::string *location)
{
    const char *found = nullptr;
    const char *cookie = nullptr;
    int32_t found_length = 0;
    int32_t cookie_length = 0;
    if (find_HTTP_302_code(text, length) != 0)
        return "no redirect";
    if (find_http_location_header(text, length, &found, &found_length) != 0 || found_length < 1)
        return "a redirect without Location";
    if (find_deviceid_cookie(text, length, &cookie, &cookie_length) != 0 || cookie_length < 1)
        return "a redirect without the cookie deviceId";
    if (found_length >= LOCATION_LIMIT || cookie_length >= COOKIE_LIMIT)
        return "a redirect whose Location or deviceId is too long";
    location->assign(found, static_cast<size_t>(found_length));
    return "";
}

static onboarding_answer receive(SSL *ssl)
{
    onboarding_answer answer;
    std::string buffer(ORV_RESPONSE_SIZE, '\0');
    onboarding_response response = {buffer.data(), 0, buffer.data(), 0};
    if (read_response_header(ssl, &response) != 0) {
        answer.trouble = "no whole answer: " + first_failure();
        return answer;
    }
    int32_t length = static_cast<int32_t>(response.body - response.buffer);
    answer.header.assign(response.buffer, static_cast<size_t>(length));
    answer.status_line = answer.header.substr(0, answer.header.find('\r'));
    answer.trouble = header_trouble(response.buffer, length, &answer.location);
    int32_t content_length = 0;
    find_content_length(response.buffer, length, &content_length);
    malloc_text body;
    if (content_length >= 1)
        body = read_response_body(ssl, &response, content_length);
    bool readable = body && evaluate_response_body(body.get(), content_length) == 0;
    if (answer.trouble.empty() && response.max_tries >= ORV_RESPONSE_WAITS)
        answer.trouble = "its header came too slowly";
    else if (answer.trouble.empty() && !readable)
        answer.trouble = content_length < 1 ? "a redirect without a body" : first_failure();
    return answer;
}

/* What is there of it that the cloud could know the device by. */
static bool write_request(SSL *ssl, const char *host, int32_t port, bool *had_token,
                          onboarding_finding *finding)
{
    if (da.dev_info.eth_mac_addr[0] == '\0') {
        finding->detail = "this device has no Ethernet MAC";
        return false;
    }
    char text[ORV_REQUEST_SIZE] = "";
    if (!build_http_get_request(host, port, text)) {
        finding->detail = "not asked: there is no serial number, account token or device id to be known by";
        return false;
    }
    std::string request = text;
    *had_token = leave_out_token(&request);
    if (tls_write(ssl, request.c_str()) == 0)
        return true;
    finding->detail = first_failure();
    return false;
}

onboarding_finding ask_onboarding(SSL *ssl, const char *host, int32_t port)
{
    onboarding_finding finding = {STEP_FAILED, "", "", nullptr};
    bool had_token = false;
    if (!write_request(ssl, host, port, &had_token, &finding))
        return finding;
    onboarding_answer answer = receive(ssl);
    int64_t server_time = http_date(answer.header);
    finding.data = json_pack("{s:s, s:b}", "status",
                             valid_utf8(answer.status_line.data(), answer.status_line.size()).c_str(),
                             "tokenLeftOut", had_token);
    if (server_time > 0)
        json_object_set_new(finding.data, DATA_SERVER_TIME, json_integer(server_time));
    if (answer.trouble.empty()) {
        finding.outcome = STEP_OK;
        finding.controller_url = answer.location;
        finding.detail = answer.status_line + ", the controller is " + answer.location;
        json_object_set_new(finding.data, "controller",
                            json_string(valid_utf8(answer.location.data(), answer.location.size()).c_str()));
        return finding;
    }
    finding.detail = answer.status_line + (answer.status_line.empty() ? "" : ": ") + answer.trouble;
    std::string denied = access_denied_message();
    if (!denied.empty())
        finding.detail += ", \"" + denied + "\"";
    if (had_token && !answer.status_line.empty()) {
        finding.outcome = STEP_UNSURE;
        finding.detail += "; asked without the account token, which the agent alone may spend";
    }
    return finding;
}
