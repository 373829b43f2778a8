/*
 * Programs that the agent looks for on its search path, made of shell lines; and real time, in which they
 * run.
 */
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/unit/support.h"

#define PROGRAMS "/usr/bin/"

/* Puts it there, in place of any of that name. The sandbox is thrown away. */
inline void install_program(const std::string &path, const std::string &lines)
{
    std::filesystem::remove(path);
    write_file(path, "#!/bin/sh\n" + lines + "\n");
    chmod(path.c_str(), 0755);
}

/* Waits in real time, while the agent's clock stands; false when it does not come true in half a minute. */
inline bool comes_true(const std::function<bool()> &condition)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        usleep(2000);
    }
    return true;
}

/* The process whose number a program has written there; 0 when it has not. */
inline pid_t number_in(const std::string &path) { return std::atoi(file_text(path).c_str()); }

/* It runs no more; what its parent has not reaped counts as ended. */
inline bool has_ended(pid_t pid)
{
    std::string status = file_text("/proc/" + std::to_string(pid) + "/stat");
    size_t behind_name = status.rfind(')');
    return behind_name == std::string::npos || status.compare(behind_name, 3, ") Z") == 0;
}
