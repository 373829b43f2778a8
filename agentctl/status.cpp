/*
 * agentctl status
 */
#include <cstdio>
#include <cstring>
#include <ctime>

#include "agent/da.h"
#include "agent/owners.h"
#include "agent/text.h"
#include "agentctl/exit-codes.h"
#include "agentctl/health.h"
#include "agentctl/output.h"
#include "agentctl/usage.h"
#include "agentctl/verbs.h"
#include "platform/config-version.h"
#include "platform/identity.h"

static const char *const verdicts[] = {"connected", "not connected", "not alive"};

/* ---- for people ---- */

static std::string agent_text(const agent_health &health)
{
    if (health.process.pid == 0)
        return "not running";
    return "running, pid " + std::to_string(health.process.pid) +
           (health.process.idle ? ", started idle (-i): it looks for no controller" : "");
}

static std::string heartbeat_text(const agent_health &health)
{
    const heartbeat &beat = health.beat;
    if (beat.clock_set)
        return "unknown, the clock has been set since";
    if (!beat.known)
        return "none";
    std::string text = duration_text(beat.age < 0 ? 0 : beat.age) + " ago";
    return beat.age > HEARTBEAT_STALE_SECONDS ? text + ": the agent hangs" : text;
}

static std::string reason_text(const reason &found, int64_t now)
{
    if (found.when == 0 && found.text.empty())
        return "none known";
    return found.text + ", " + time_text(found.when, now);
}

static std::string or_unknown(const std::string &text) { return text.empty() ? "unknown" : text; }

static void print_address(const address_source *source)
{
    if (!source) {
        print_field("Address from", "unknown, what named it has changed since");
        return;
    }
    print_field("Address from", std::string(source->name) + " (" + source->place + "): " + source->url);
    if (source->state == SOURCE_IS_INVALID) {
        print_field("Certificate", "not reached, that is no valid URL");
        return;
    }
    print_field("Certificate", certificate_rule_text(certificate_rule_for(source->url)));
}

static void print_status(const agent_health &health, const address_source *source, int64_t now)
{
    print_field("Health", verdicts[health.verdict]);
    print_field("Connection", or_unknown(health.connection));
    print_field("Agent", agent_text(health));
    print_field("Heartbeat", heartbeat_text(health));
    print_address(source);
    if (health.verdict == HEALTH_NOT_CONNECTED)
        print_field("Next attempt", health.next_attempt ? time_text(health.next_attempt, now)
                                                        : "under way, or not announced");
    print_field("Last close", reason_text(health.last_close, now));
    print_field("Last reboot", reason_text(health.last_reboot, now));
    print_field("Agent starts", std::to_string(health.starts) + " since boot");
    print_field("Session id", or_unknown(health.session_id));
    print_field("Agent version", or_unknown(health.agent_version));
    print_field("Software", or_unknown(da.dev_info.sw_version));
    print_field("Standby image", or_unknown(da.dev_info.other_sw_version));
    int32_t version = platform_get_da_config_version();
    print_field("Configuration", version < 0 ? "unknown" : "version " + std::to_string(version));
}

/* ---- for programs ---- */

static json_t *text_or_null(const std::string &text)
{
    return text.empty() ? json_null() : json_string(valid_utf8(text.data(), text.size()).c_str());
}

static json_t *reason_json(const reason &found)
{
    if (found.when == 0 && found.text.empty())
        return json_null();
    return json_pack("{s:I, s:o}", "time", static_cast<json_int_t>(found.when), "reason",
                     text_or_null(found.text));
}

static json_t *address_json(const address_source *source)
{
    if (!source)
        return json_null();
    return json_pack("{s:s, s:s, s:o, s:b}", "source", source->name, "place", source->place, "url",
                     text_or_null(source->url), "valid", source->state == SOURCE_IS_CANDIDATE);
}

static json_t *certificate_json(const address_source *source)
{
    if (!source || source->state == SOURCE_IS_INVALID)
        return json_null();
    certificate_rule rule = certificate_rule_for(source->url);
    return json_pack("{s:b, s:s}", "checked", rule == CERTIFICATE_CHECKED, "rule",
                     certificate_rule_text(rule));
}

static json_t *number_or_null(bool known, int64_t number)
{
    return known ? json_integer(number) : json_null();
}

static void print_status_json(const agent_health &health, const address_source *source)
{
    int32_t version = platform_get_da_config_version();
    json_ptr agent(json_pack("{s:o, s:b, s:i}", "pid",
                             number_or_null(health.process.pid != 0, health.process.pid), "idle",
                             health.process.idle, "starts", health.starts));
    json_ptr beat(json_pack("{s:o, s:o}", "age", number_or_null(health.beat.known, health.beat.age), "fresh",
                            health.beat.known ? json_boolean(health.beat.age <= HEARTBEAT_STALE_SECONDS)
                                              : json_null()));
    json_ptr versions(json_pack("{s:o, s:o, s:o, s:o}", "agent", text_or_null(health.agent_version),
                                "software", text_or_null(da.dev_info.sw_version), "standby",
                                text_or_null(da.dev_info.other_sw_version), "configuration",
                                number_or_null(version >= 0, version)));
    json_ptr whole(json_pack(
        "{s:s, s:o, s:O, s:O, s:o, s:o, s:o, s:o, s:o, s:o, s:O}", "health", verdicts[health.verdict],
        "connection", text_or_null(health.connection), "agent", agent.get(), "heartbeat", beat.get(),
        "address", address_json(source), "certificate", certificate_json(source), "nextAttempt",
        number_or_null(health.next_attempt != 0, health.next_attempt), "lastClose",
        reason_json(health.last_close), "lastReboot", reason_json(health.last_reboot), "sessionId",
        number_or_null(!health.session_id.empty(), text_to_int(health.session_id.c_str())), "versions",
        versions.get()));
    print_json(whole.get());
}

int verb_status(int argc, char **argv)
{
    bool as_json = argc == 2 && strcmp(argv[1], "--json") == 0;
    if (argc > 1 && !as_json)
        return usage_error("status", "what is ", argv[1]);
    int64_t now = time(nullptr);
    platform_read_identity();
    agent_health health = read_health(now);
    use_static_url(health.process.static_url);
    std::vector<address_source> sources = read_address_sources();
    const address_source *source = source_in_force(sources, health.connection);
    if (as_json)
        print_status_json(health, source);
    else
        print_status(health, source, now);
    return health.verdict;
}
