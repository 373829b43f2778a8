#include "agentctl/check-run.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "agentctl/check-way.h"

int64_t milliseconds_now(void)
{
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

int64_t step_limit(const std::string &name)
{
    /* The resolver may ask twice for 3 s each. */
    bool is_name = name == "name" || name == "controller name";
    return is_name ? 6500 : 5000;
}

/* A step that has begun and not ended. */
struct open_step {
    std::string name;
    int64_t since = 0;
    int64_t until = 0; /* its own limit or the deadline of all, whichever comes first */
};

static check_step finished(const std::string &source, const open_step &open, const char *outcome,
                           const char *detail)
{
    check_step step;
    step.source = source;
    step.name = open.name;
    step.outcome = outcome;
    step.detail = detail;
    step.seconds = static_cast<double>(milliseconds_now() - open.since) / 1000;
    return step;
}

/* Takes one line of the child in. */
static void hear(const std::string &line, const address_source &source, int64_t deadline, open_step *open,
                 check_steps *steps, void (*show)(const check_step &step))
{
    json_ptr object(json_loadb(line.data(), line.size(), 0, nullptr));
    const char *begun = json_string_value(json_object_get(object.get(), "begin"));
    const char *outcome = json_string_value(json_object_get(object.get(), "outcome"));
    const char *detail = json_string_value(json_object_get(object.get(), "detail"));
    if (begun) {
        int64_t now = milliseconds_now();
        *open = {begun, now, std::min(now + step_limit(begun), deadline)};
    } else if (outcome && detail && !open->name.empty()) {
        steps->push_back(finished(source.name, *open, outcome, detail));
        steps->back().data.reset(json_incref(json_object_get(object.get(), "data")));
        show(steps->back());
        *open = {};
    }
}

/* Waits for bytes until the open step's time is over. False when there will be none. */
static bool more_text(int fd, const open_step &open, int64_t deadline, std::string *text)
{
    for (;;) {
        int64_t left = (open.name.empty() ? deadline : open.until) - milliseconds_now();
        struct pollfd wanted = {fd, POLLIN, 0};
        int ready = poll(&wanted, 1, static_cast<int>(std::max<int64_t>(left, 0)));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0)
            return false;
        char bytes[4096];
        ssize_t count = read(fd, bytes, sizeof(bytes));
        if (count <= 0)
            return false;
        text->append(bytes, static_cast<size_t>(count));
        return true;
    }
}

[[noreturn]] static void be_the_child(const address_source &source, int out)
{
    signal(SIGPIPE, SIG_IGN);
    int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(nowhere, STDERR_FILENO); /* the agent's parts speak there as well */
    go_the_way(source, out);
    _exit(0);
}

void run_way(const address_source &source, int64_t deadline, check_steps *steps,
             void (*show)(const check_step &step))
{
    int ends[2] = {-1, -1};
    fflush(stdout);
    pid_t child = pipe2(ends, O_CLOEXEC) == 0 ? fork() : -1;
    if (child == 0)
        be_the_child(source, ends[1]);
    fd_guard from(ends[0]);
    if (ends[1] >= 0)
        close(ends[1]); /* the pipe ends with the child */
    open_step open = {"start", milliseconds_now(), deadline};
    std::string text;
    if (child > 0)
        while (more_text(from.fd, open, deadline, &text))
            for (size_t end; (end = text.find('\n')) != std::string::npos; text.erase(0, end + 1))
                hear(text.substr(0, end), source, deadline, &open, steps, show);
    if (!open.name.empty()) {
        char detail[64] = "ended without a result";
        if (milliseconds_now() >= open.until)
            snprintf(detail, sizeof(detail), "no answer within %.1f s",
                     static_cast<double>(open.until - open.since) / 1000);
        steps->push_back(finished(source.name, open, STEP_FAILED, detail));
        show(steps->back());
    }
    if (child > 0) {
        kill(child, SIGKILL);
        while (waitpid(child, nullptr, 0) < 0 && errno == EINTR)
            continue;
    }
}
