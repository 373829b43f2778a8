/*
 * What the tests of commands that run as programs share: "ping" is a script of the test's, found first on the
 * search path.
 */
#pragma once

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include "agent/text.h"
#include "tests/unit/exec-test.h"

#define FOLDER "/tmp/exec-test"

inline int open_descriptors(void)
{
    auto entries = std::filesystem::directory_iterator("/proc/self/fd");
    return static_cast<int>(std::distance(entries, std::filesystem::directory_iterator()));
}

/* The process has ended; a zombie that another parent has yet to reap has. */
inline bool gone(const std::string &file)
{
    const std::string stat =
        file_text("/proc/" + std::to_string(text_to_int(file_text(file).c_str())) + "/stat");
    return stat.empty() || stat.find(") Z ") != std::string::npos;
}

/* Children of this program, zombies too. */
inline std::string children(void)
{
    return file_text("/proc/self/task/" + std::to_string(getpid()) + "/children");
}

class exec_child : public exec_test {
protected:
    int descriptors = 0;

    void SetUp() override
    {
        exec_test::SetUp();
        std::filesystem::remove_all(FOLDER);
        std::filesystem::create_directories(FOLDER);
        setenv("PATH", FOLDER ":/usr/bin:/bin", 1);
        descriptors = open_descriptors();
    }
    void TearDown() override
    {
        exec_test::TearDown();
        EXPECT_EQ(children(), "");
        EXPECT_EQ(open_descriptors(), descriptors);
    }

    /* The program that "ping" is. */
    static void ping_is(const std::string &text, const char *name = "ping")
    {
        const std::string path = std::string(FOLDER "/") + name;
        write_file(path, text);
        std::filesystem::permissions(path, std::filesystem::perms::all);
    }
    static void ping_says(const std::string &commands) { ping_is("#!/bin/sh\n" + commands); }

    static int start(int32_t mode = TS_FOR_FRONT_END, const std::string &more = "")
    {
        EXPECT_EQ(parse("{\"command\": \"ping\"" + more + "}"), NO_ERROR);
        packets.clear();
        return start_exec_cmd(nullptr, mode, nullptr);
    }

    /* Everything that the front end got as output, with the statuses in brackets but for "InProgress". */
    static std::string said(void)
    {
        std::string all;
        for (const std::string &packet : packets) {
            json_ptr message = json(packet);
            const std::string status = json_string_value(json_object_get(message.get(), "status"));
            const json_t *output = json_object_get(message.get(), "output");
            all += status == "InProgress" ? "" : "[" + status + "]";
            all += std::string(json_string_value(output), json_string_length(output));
        }
        return all;
    }
    static bool ends(int milliseconds = 15000)
    {
        return run_loop_until([] { return exec_running == 0; }, milliseconds);
    }
    static bool says(const std::string &text, int milliseconds = 10000)
    {
        return run_loop_until([&] { return said().find(text) != std::string::npos; }, milliseconds);
    }
};
