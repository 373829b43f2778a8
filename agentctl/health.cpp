#include "agentctl/health.h"

#include <cstring>
#include <ctime>

#include <sys/stat.h>
#include <sys/sysinfo.h>

#include "agent/reasons.h"
#include "agent/start.h"
#include "agent/text.h"
#include "agent/utils.h"
#include "agentctl/next-attempt.h"
#include "platform/connection-status.h"
#include "platform/heartbeat.h"
#include "protocol/session-id.h"

/* What the agent publishes while it is connected; the host follows. */
static const char CONNECTED_TEXT[] = "Connected to ";
/* And while it is, but waits for somebody to let the device in. */
static const char APPROVAL_TEXT[] = "Device Approval Pending";

static std::string value_of(const char *path, size_t limit)
{
    std::string text(limit + 1, '\0');
    (void)read_value_file(path, text.data(), limit);
    return text.c_str();
}

enum { CLOCK_JITTER = 2 }; /* seconds */

static bool is_connected(const std::string &connection)
{
    return connection.compare(0, sizeof(CONNECTED_TEXT) - 1, CONNECTED_TEXT) == 0;
}

static reason reason_of(const char *path)
{
    char text[REASON_SIZE] = "";
    reason found;
    found.when = get_reason(path, text);
    found.text = text;
    return found;
}

heartbeat judge_heartbeat(int64_t touched, int64_t now, int64_t uptime)
{
    heartbeat beat;
    beat.age = now - touched;
    /* "/tmp" is empty at boot, so nothing in it is older; and nothing is touched in the future. */
    beat.clock_set = beat.age > uptime || beat.age < -CLOCK_JITTER;
    beat.known = !beat.clock_set;
    return beat;
}

static heartbeat read_heartbeat(int64_t now)
{
    struct stat status;
    struct sysinfo system = {};
    if (stat(HEARTBEAT_FILE, &status) != 0 || sysinfo(&system) != 0)
        return {};
    return judge_heartbeat(status.st_mtime, now, system.uptime);
}

health_verdict judge_health(const agent_process &process, const heartbeat &beat,
                            const std::string &connection)
{
    bool stale = beat.known && beat.age > HEARTBEAT_STALE_SECONDS;
    if (process.pid == 0 || stale)
        return HEALTH_NOT_ALIVE;
    return is_connected(connection) ? HEALTH_CONNECTED : HEALTH_NOT_CONNECTED;
}

const address_source *source_in_force(const std::vector<address_source> &sources,
                                      const std::string &connection)
{
    bool connected = is_connected(connection);
    for (const address_source &source : sources) {
        if (source.state == SOURCE_IS_ABSENT || source.state == SOURCE_IS_PASSED_OVER)
            continue;
        if (!connected)
            return &source;
        if (source.host == connection.substr(sizeof(CONNECTED_TEXT) - 1))
            return &source;
    }
    return nullptr;
}

agent_health read_health(int64_t now)
{
    enum { STATUS_LENGTH = 383, NUMBER_LENGTH = 15, VERSION_LENGTH = 127 };
    agent_health health;
    health.process = find_agent_process();
    health.connection = value_of(ORV_STATE_FILE, STATUS_LENGTH);
    health.beat = read_heartbeat(now);
    health.verdict = judge_health(health.process, health.beat, health.connection);
    health.last_close = reason_of(LAST_CLOSE_REASON_FILE);
    health.last_reboot = reason_of(LAST_REBOOT_REASON_FILE);
    if (health.verdict == HEALTH_NOT_CONNECTED && health.connection != APPROVAL_TEXT)
        health.next_attempt = announced_attempt(now);
    health.starts = text_to_int(value_of(RESTARTS_FILE, NUMBER_LENGTH).c_str());
    health.session_id = value_of(SESSION_ID_FILE, NUMBER_LENGTH);
    health.agent_version = value_of(DA_VERSION_FILE, VERSION_LENGTH);
    return health;
}
