#include "agentctl/agent-process.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <getopt.h>

namespace fs = std::filesystem;

/* One process of /proc/PID/stat. */
struct process_row {
    pid_t pid = 0;
    std::string name;
    char state = '?';
    pid_t parent = 0;
};

static std::string whole_file(const fs::path &path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

/* "12 (name) S 1 ...": the name may hold anything, so it ends at the last parenthesis. */
static bool read_row(const fs::path &folder, process_row *row)
{
    std::string text = whole_file(folder / "stat");
    size_t open = text.find('(');
    size_t close = text.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close < open)
        return false;
    row->pid = static_cast<pid_t>(strtol(text.c_str(), nullptr, 10));
    row->name = text.substr(open + 1, close - open - 1);
    int parent = 0;
    if (sscanf(text.c_str() + close + 1, " %c %d", &row->state, &parent) != 2)
        return false;
    row->parent = parent;
    return true;
}

/* All processes; what ends while we look is left out. */
static std::vector<process_row> all_processes(void)
{
    std::vector<process_row> rows;
    std::error_code error;
    for (fs::directory_iterator at("/proc", error), end; !error && at != end; at.increment(error)) {
        process_row row;
        if (isdigit(static_cast<unsigned char>(at->path().filename().string()[0])) &&
            read_row(at->path(), &row))
            rows.push_back(row);
    }
    return rows;
}

static std::vector<std::string> command_line(pid_t pid)
{
    std::istringstream text(whole_file("/proc/" + std::to_string(pid) + "/cmdline"));
    std::vector<std::string> arguments;
    for (std::string argument; std::getline(text, argument, '\0');)
        arguments.push_back(argument);
    return arguments;
}

void read_agent_options(std::vector<std::string> arguments, agent_process *agent)
{
    std::vector<char *> argv;
    for (std::string &argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    opterr = 0;
    optind = 0; /* from the beginning, whatever was parsed before */
    int option;
    while ((option = getopt(static_cast<int>(arguments.size()), argv.data(), "hd:s:iv")) != -1) {
        if (option == 's')
            agent->static_url = optarg;
        if (option == 'i')
            agent->idle = true;
    }
}

agent_process find_agent_process(void)
{
    agent_process agent;
    std::vector<process_row> rows = all_processes();
    auto is_agent = [&](const process_row &row) { return row.name == AGENT_PROGRAM && row.state != 'Z'; };
    for (const process_row &row : rows) {
        if (!is_agent(row))
            continue;
        bool is_child = false;
        for (const process_row &other : rows)
            is_child = is_child || (other.pid == row.parent && is_agent(other));
        if (is_child)
            continue;
        agent.pid = row.pid;
        read_agent_options(command_line(row.pid), &agent);
        break;
    }
    return agent;
}

/* The agent's other children: its transfers, the shell that it waits for, and its own copies. */
static bool is_helper(const std::string &name)
{
    return name == "fw_dl" || name == "s3upload" || name == "sh" || name == AGENT_PROGRAM;
}

std::vector<std::string> running_commands(pid_t agent)
{
    std::vector<std::string> commands;
    for (const process_row &row : all_processes()) {
        if (agent == 0 || row.parent != agent || row.state == 'Z' || is_helper(row.name))
            continue;
        std::string line;
        for (const std::string &argument : command_line(row.pid))
            line += (line.empty() ? "" : " ") + argument;
        commands.push_back(line.empty() ? row.name : line);
    }
    return commands;
}
