#include "tests/unit/support.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <sys/timerfd.h>
#include <unistd.h>

#include "agent/da.h"
#include "agent/debug-log.h"
#include "agent/ev.h"
#include "agent/hooks.h"

std::string file_text(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

void write_file(const std::string &path, const std::string &text)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

void block_place(const std::string &path)
{
    free_place(path);
    write_file(path + "/file", "");
    write_file(path + ".aside/file", "");
}

void free_place(const std::string &path)
{
    std::filesystem::remove_all(path);
    std::filesystem::remove_all(path + ".aside");
}

bool path_exists(const std::string &path)
{
    std::error_code error;
    return std::filesystem::exists(std::filesystem::symlink_status(path, error));
}

/* "2026-01-02 03:04:05 123 module.c:45:message" to "module.c:message" */
static std::string without_prefix(const std::string &line)
{
    size_t module_start = 0;
    for (int blanks = 0; blanks < 3; blanks++)
        module_start = line.find(' ', module_start) + 1;
    size_t module_end = line.find(':', module_start);
    size_t number_end = line.find(':', module_end + 1);
    if (module_end == std::string::npos || number_end == std::string::npos)
        return line;
    return line.substr(module_start, module_end - module_start) + line.substr(number_end);
}

/* A line starts with a date; what follows without one belongs to the message before. */
static bool starts_a_line(const std::string &line)
{
    return line.size() > 19 && line[4] == '-' && line[7] == '-' && line[10] == ' ' && line[13] == ':';
}

std::vector<std::string> logged(void)
{
    std::vector<std::string> messages;
    std::istringstream lines(file_text(AGENT_LOG_FILE));
    for (std::string line; std::getline(lines, line);) {
        if (starts_a_line(line) || messages.empty())
            messages.push_back(without_prefix(line));
        else
            messages.back() += "\n" + line;
    }
    return messages;
}

void clear_log(void) { std::filesystem::remove(AGENT_LOG_FILE); }

bool was_logged(const std::string &message)
{
    std::vector<std::string> messages = logged();
    return std::any_of(messages.begin(), messages.end(), [&](const std::string &line) {
        size_t colon = line.find(':');
        return colon != std::string::npos && line.substr(colon + 1) == message;
    });
}

/* The recorder ends each argument with US and each call with RS US. */
std::vector<std::string> recorded(const std::string &tool)
{
    std::vector<std::string> calls;
    std::string call;
    for (char c : file_text("/run/lab/records/" + tool)) {
        if (c == '\x1e') {
            calls.push_back(call.substr(0, call.find_last_not_of(' ') + 1));
            call.clear();
        } else if (c != '\x1f') {
            call += c;
        } else if (!call.empty()) {
            call += ' ';
        }
    }
    return calls;
}

void clear_recorded(const std::string &tool) { std::filesystem::remove("/run/lab/records/" + tool); }

void fresh_agent(void)
{
    ev_reset();
    hooks = agent_hooks();
    da_reset();
    da.debug_level = LOG_TRACE;
    aggressive_mode = 0;
    retry_time = 0;
    static_orv_url[0] = '\0';
    stay_idle = 0;
    pmac_discovery_complete = 0;
    orv_state_action_pending = 0;
    g_orv_router[0] = '\0';
    clear_log();
}

static void drain_tick(int32_t fd, int32_t, void *)
{
    uint64_t expirations;
    (void)!read(fd, &expirations, sizeof(expirations));
}

bool run_loop_until(const std::function<bool()> &condition, int milliseconds)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    /* A pass may sleep for seconds: a descriptor that becomes readable every 10 ms lets the condition be
     * looked at. */
    int tick = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    struct itimerspec every = {{0, 10000000}, {0, 10000000}};
    timerfd_settime(tick, 0, &every, nullptr);
    ev_add_fd(tick, EV_READ, drain_tick, nullptr);
    bool holds;
    while (!(holds = condition()) && std::chrono::steady_clock::now() < deadline)
        ev_main();
    ev_del_fd(tick);
    close(tick);
    return holds;
}
