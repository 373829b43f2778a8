/*
 * agentctl check
 */
#include <cstdio>
#include <cstring>
#include <ctime>

#include "agent/environment.h"
#include "agent/text.h"
#include "agentctl/check-run.h"
#include "agentctl/check-verdict.h"
#include "agentctl/exit-codes.h"
#include "agentctl/health.h"
#include "agentctl/output.h"
#include "agentctl/usage.h"
#include "agentctl/verbs.h"
#include "device/tavosutils.h"
#include "platform/identity.h"

/* Milliseconds. */
enum {
    CHECK_LIMIT = 28000,       /* of the whole */
    CHECK_SHARE_LIMIT = 14000, /* of a source behind which another one may have to be asked */
};

static void show_step(const check_step &step)
{
    std::string name = step.source.empty() ? step.name : step.source + ", " + step.name;
    printf("%-8s %-40s %s\n", step.outcome.c_str(), name.c_str(), printable_line(step.detail).c_str());
    fflush(stdout);
}

static void show_nothing(const check_step &) {}

/* A report in the making. */
struct check_report {
    check_steps steps;
    void (*show)(const check_step &step);
    bool open = false;
    bool unsure = false;
};

static void add(check_report *report, const std::string &source, const char *name, const char *outcome,
                const std::string &detail)
{
    check_step step;
    step.source = source;
    step.name = name;
    step.outcome = outcome;
    step.detail = detail;
    report->steps.push_back(std::move(step));
    report->show(report->steps.back());
}

/* ---- the device itself ---- */

static void check_agent(const agent_health &health, check_report *report)
{
    if (health.process.pid == 0)
        add(report, "", "agent", STEP_FAILED, "it is not running");
    else if (health.verdict == HEALTH_NOT_ALIVE)
        add(report, "", "agent", STEP_FAILED,
            "it hangs: its last heartbeat was " + duration_text(health.beat.age) + " ago");
    else if (health.process.idle)
        add(report, "", "agent", STEP_FAILED, "it was started idle (-i) and looks for no controller");
    else
        add(report, "", "agent", STEP_OK, "it is running and says: " + health.connection);
}

static void check_device_address(check_report *report)
{
    char address[DEVICE_IP_SIZE] = "";
    if (get_device_ip(address) == 0 && address[0] != '\0')
        add(report, "", "address of this device", STEP_OK, address);
    else
        add(report, "", "address of this device", STEP_FAILED, "no interface has an IPv4 address");
}

/* ---- the sources ---- */

static std::string source_text(const address_source &source)
{
    return source.url + " (" + source.place + ")";
}

/* Reports what a source says. True when it names a host to ask. */
static bool check_source(const address_source &source, check_report *report)
{
    switch (source.state) {
    case SOURCE_IS_ABSENT:
        add(report, source.name, "address", STEP_SKIPPED,
            std::string("not configured (") + source.place + ")");
        return false;
    case SOURCE_IS_PASSED_OVER:
        add(report, source.name, "address", STEP_SKIPPED,
            source_text(source) + " is the cloud, which is asked last anyway");
        return false;
    case SOURCE_IS_INVALID:
        add(report, source.name, "address", source.final ? STEP_FAILED : STEP_WARNING,
            source_text(source) + " is no valid URL");
        return false;
    default: add(report, source.name, "address", STEP_OK, source_text(source)); return true;
    }
}

/* Goes through the sources as discovery does: until one is final, or has led to a controller. */
static void check_sources(const std::vector<address_source> &sources, int64_t deadline, check_report *report)
{
    const char *decided = nullptr;
    for (const address_source &source : sources) {
        if (decided) {
            bool absent = source.state == SOURCE_IS_ABSENT;
            add(report, source.name, "address", STEP_SKIPPED,
                absent ? std::string("not configured (") + source.place + ")"
                       : source_text(source) + " is not asked: " + decided + " comes first");
            continue;
        }
        if (check_source(source, report)) {
            int64_t share = source.final ? deadline : milliseconds_now() + CHECK_SHARE_LIMIT;
            run_way(source, share, &report->steps, report->show);
        }
        way_result way = judge_way(report->steps, source.name);
        report->open = way.open;
        report->unsure = way.unsure;
        if (source.final || way.onboarded)
            decided = source.name;
    }
}

/* ---- the whole ---- */

/* A failed step of a source that the agent falls back from does not bar the way. */
static bool device_is_ready(const check_steps &steps)
{
    for (const check_step &step : steps)
        if (step.source.empty() && step.outcome == STEP_FAILED)
            return false;
    return true;
}

static const char *verdict_of(const check_report &report)
{
    if (report.open && device_is_ready(report.steps))
        return "open";
    return report.unsure && device_is_ready(report.steps) ? "unsure" : "blocked";
}

static void print_verdict(const char *verdict, const agent_health &health, int64_t now)
{
    printf("\n");
    if (strcmp(verdict, "unsure") == 0)
        printf("It cannot be told whether the way to the controller is open.\n");
    else if (strcmp(verdict, "blocked") == 0)
        printf("The way to the controller is blocked: see what failed above.\n");
    else if (health.verdict == HEALTH_CONNECTED)
        printf("The way to the controller is open, and the agent is connected.\n");
    else
        printf("The way is open as far as the controller's TLS; the websocket was not tried.\n");
    if (health.verdict == HEALTH_NOT_CONNECTED && health.next_attempt)
        printf("The agent tries again at %s.\n", time_text(health.next_attempt, now).c_str());
}

static void print_report_json(const check_report &report, const char *verdict, int64_t started)
{
    json_t *list = json_array();
    for (const check_step &step : report.steps) {
        json_t *source = step.source.empty() ? json_null() : json_string(step.source.c_str());
        json_array_append_new(list, json_pack("{s:o, s:s, s:s, s:s, s:f, s:O*}", "source", source, "step",
                                              step.name.c_str(), "outcome", step.outcome.c_str(), "detail",
                                              valid_utf8(step.detail.data(), step.detail.size()).c_str(),
                                              "seconds", step.seconds, "data", step.data.get()));
    }
    json_ptr whole(json_pack("{s:s, s:f, s:o}", "verdict", verdict, "seconds",
                             static_cast<double>(milliseconds_now() - started) / 1000, "steps", list));
    print_json(whole.get());
}

int verb_check(int argc, char **argv)
{
    bool as_json = argc == 2 && strcmp(argv[1], "--json") == 0;
    if (argc > 1 && !as_json)
        return usage_error("check", "what is ", argv[1]);
    settle_environment();
    int64_t started = milliseconds_now();
    int64_t now = time(nullptr);
    platform_read_identity();
    agent_health health = read_health(now);
    use_static_url(health.process.static_url);

    check_report report;
    report.show = as_json ? show_nothing : show_step;
    check_agent(health, &report);
    check_device_address(&report);
    check_sources(read_address_sources(), started + CHECK_LIMIT, &report);
    report.steps.push_back(judge_clock(report.steps, time(nullptr)));
    report.show(report.steps.back());

    const char *verdict = verdict_of(report);
    if (as_json)
        print_report_json(report, verdict, started);
    else
        print_verdict(verdict, health, now);
    return strcmp(verdict, "open") == 0 ? EXIT_GOOD : EXIT_BAD;
}
