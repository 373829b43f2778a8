#include "agentctl/check-way.h"

#include <cstring>

#include <netdb.h>
#include <unistd.h>

#include "agent/da.h"
#include "agent/text.h"
#include "agent/utils.h"
#include "agentctl/certificate-look.h"
#include "agentctl/check-onboarding.h"
#include "agentctl/check-step.h"
#include "agentctl/read-only.h"
#include "discovery/tcp-connect.h"
#include "discovery/tls-session.h"
#include "discovery/url.h"

/* ---- telling ---- */

static int told_to;

static void tell(json_t *object)
{
    json_ptr owned(object);
    malloc_text text(json_dumps(object, JSON_COMPACT));
    std::string line = std::string(text ? text.get() : "{}") + "\n";
    (void)!write(told_to, line.data(), line.size());
}

static void begin(const char *name)
{
    forget_told();
    tell(json_pack("{s:s}", "begin", name));
}

/* Ends a step; returns whether it was passed. */
static bool end(const char *name, const char *outcome, const std::string &detail, json_t *data = nullptr)
{
    tell(json_pack("{s:s, s:s, s:s, s:o*}", "end", name, "outcome", outcome, "detail",
                   valid_utf8(detail.data(), detail.size()).c_str(), "data", data));
    return strcmp(outcome, STEP_OK) == 0 || strcmp(outcome, STEP_WARNING) == 0;
}

/* ---- the steps ---- */

/* The names of a server's steps: the onboarding service's and the controller's. */
struct server_steps {
    const char *name;
    const char *connection;
    const char *certificate;
};

static bool resolve(const server_steps &steps, const char *host, char (&address)[ADDRESS_TEXT_SIZE])
{
    begin(steps.name);
    if (hostname_to_ip(host, address) == 0)
        return end(steps.name, STEP_OK, std::string(host) + " is " + address,
                   json_pack("{s:s, s:s}", "host", host, "address", address));
    std::string line;
    std::string why = first_failure();
    if (failure_with("error_code=", &line))
        why = gai_strerror(text_to_int(line.c_str() + line.find('=') + 1));
    return end(steps.name, STEP_FAILED, std::string(host) + ": " + why, json_pack("{s:s}", "host", host));
}

static int connect_to(const server_steps &steps, const char *address, int32_t port)
{
    begin(steps.connection);
    std::string place = std::string(address) + " port " + std::to_string(port);
    int fd = tcp_connect(address, port); /* an address needs no name service: only the connection counts */
    if (fd >= 0)
        end(steps.connection, STEP_OK, place);
    else
        end(steps.connection, STEP_FAILED, place + ": " + first_failure());
    return fd;
}

/* The TLS session with a server, or null. `fd` stays the caller's. */
static ssl_ptr secure(const server_steps &steps, SSL_CTX *context, int fd, const char *host, int32_t port,
                      const std::string &url)
{
    begin(steps.certificate);
    certificate_rule rule = certificate_rule_for(url); /* from now on the agent's check goes by this URL */
    certificate_look look;
    watch_certificate(context, host, &look);
    ssl_ptr ssl = tls_make_session(context, fd, host, port);
    if (!ssl || tls_handshake(ssl.get()) != 0) {
        std::string why = look.refused ? refusal_text(look, host) : "no TLS: " + first_failure();
        end(steps.certificate, STEP_FAILED, why, certificate_data(look, rule));
        return nullptr;
    }
    end(steps.certificate, look.not_yet_valid ? STEP_WARNING : STEP_OK,
        certificate_text(look) + ", " + certificate_rule_text(rule), certificate_data(look, rule));
    return ssl;
}

/* The onboarding; `controller` gets the URL it leads to. */
static bool onboard(SSL *ssl, const address_source &source, std::string *controller)
{
    begin(STEP_ONBOARDING);
    onboarding_finding found = ask_onboarding(ssl, source.host.c_str(), source.port);
    *controller = found.controller_url;
    return end(STEP_ONBOARDING, found.outcome, found.detail, found.data);
}

static bool split_controller_url(const std::string &url, parsed_url *pieces, int32_t *port)
{
    http_parser_url found;
    http_parser_url_init(&found);
    if (http_parser_parse_url(url.c_str(), url.size(), 0, &found) != 0 ||
        get_parsed_url_details(url.c_str(), &found, pieces) != 0)
        return false;
    *port = pieces->port[0] ? text_to_int(pieces->port) : 443;
    return true;
}

/* The controller, as far as its TLS: a websocket would take the place of the agent's. */
static void reach_controller(const std::string &url)
{
    static const server_steps steps = {"controller name", "controller connection", "controller certificate"};
    parsed_url pieces;
    int32_t port = 0;
    if (!split_controller_url(url, &pieces, &port)) {
        begin(steps.name);
        end(steps.name, STEP_FAILED, url + " is no valid URL");
        return;
    }
    char address[ADDRESS_TEXT_SIZE] = "";
    if (!resolve(steps, pieces.host, address))
        return;
    fd_guard sock(connect_to(steps, address, port));
    if (sock.fd < 0)
        return;
    ssl_ctx_ptr context = tls_make_context(pieces.host);
    if (context)
        (void)secure(steps, context.get(), sock.fd, pieces.host, port, url);
}

void go_the_way(const address_source &source, int out)
{
    static const server_steps steps = {"name", "connection", "certificate"};
    told_to = out;
    std::string controller;
    {
        char address[ADDRESS_TEXT_SIZE] = "";
        if (!resolve(steps, source.host.c_str(), address))
            return;
        fd_guard sock(connect_to(steps, address, source.port));
        if (sock.fd < 0)
            return;
        char host[128]; /* what the agent keeps of it for the certificate check */
        copy_text(host, source.host.c_str());
        ssl_ctx_ptr context = tls_make_context(host);
        if (!context)
            return;
        ssl_ptr ssl = secure(steps, context.get(), sock.fd, host, source.port, source.url);
        if (!ssl || !onboard(ssl.get(), source, &controller))
            return;
    }
    reach_controller(controller);
}
