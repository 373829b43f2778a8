#include "stats/stats-digest.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "agent/ev.h"
#include "agent/named-timer.h"
#include "agent/signal-mask.h"
#include "agent/text.h"
#include "protocol/session-id.h"
#include "stats/stats-report.h"

static void child_late(void *name);

/* What the child sends first; the text of a report follows it, none of another outcome. */
struct digest_head {
    size_t length;
    int32_t outcome;
    int32_t periodic;
};

static pid_t child;
static int child_pipe = -1;
static void (*tell)(digest result);
static char *received; /* the head and as much of the text as has come */
static size_t used, capacity;
static named_timer child_timer = {"STATS DIGEST", child_late, nullptr};

bool digest_under_way(void) { return child > 0; }

/* The answer is terminated; a NUL that the daemon sent along ends it, one inside a text is data. */
static digest digest_in_place(const char *answer, int32_t session)
{
    json_ptr object(json_loads(answer, JSON_ALLOW_NUL, nullptr));
    if (!json_is_object(object.get()))
        return {digest::NO_JSON, 0, nullptr};
    int32_t periodic = clamp_to_int32(json_integer_value(json_object_get(object.get(), "periodic")));
    int32_t index = clamp_to_int32(json_integer_value(json_object_get(object.get(), "index")));
    /* The result is shared with the report, not copied: nobody changes it. */
    json_ptr stats(json_incref(json_object_get(object.get(), "stats_result")));
    malloc_text text = stats_report(std::move(stats), periodic, index, session);
    return {text ? digest::REPORT : digest::LOST, periodic, std::move(text)};
}

/* ---- the child ---- */

static void write_whole(int fd, const void *data, size_t length)
{
    const char *at = static_cast<const char *>(data);
    while (length > 0) {
        ssize_t written = write(fd, at, length);
        if (written < 0 && errno != EINTR)
            _exit(1);
        at += std::max<ssize_t>(written, 0);
        length -= static_cast<size_t>(std::max<ssize_t>(written, 0));
    }
}

/* It keeps no descriptor but its pipe: a connection that the agent closes meanwhile has to be closed. */
[[noreturn]] static void work(int pipe, const char *answer, int32_t session)
{
    signals_reset_for_child();
    for (int fd = 0; fd < EV_FD_LIMIT; fd++)
        if (fd != pipe)
            (void)close(fd);
    digest result = digest_in_place(answer, session);
    const char *text = result.text ? result.text.get() : "";
    digest_head head = {strlen(text), result.outcome, result.periodic};
    write_whole(pipe, &head, sizeof(head));
    write_whole(pipe, text, head.length);
    _exit(0);
}

/* ---- the parent ---- */

static void forget_child(bool kill_it)
{
    timer_disarm(child_timer);
    ev_del_fd(child_pipe);
    if (child_pipe >= 0)
        (void)close(child_pipe);
    child_pipe = -1;
    /* One that has closed its pipe has nothing left to do, so this does not wait. */
    if (child > 0 && kill_it)
        (void)kill(child, SIGKILL);
    while (child > 0 && waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
    child = 0;
}

/* What a child that has ended came to. */
static digest take_result(void)
{
    digest_head head = {};
    malloc_text text(received);
    received = nullptr;
    if (!text || used < sizeof(head))
        return {digest::LOST, 0, nullptr};
    memcpy(&head, text.get(), sizeof(head));
    if (used != sizeof(head) + head.length)
        return {digest::LOST, 0, nullptr};
    if (head.outcome != digest::REPORT)
        return {head.outcome == digest::NO_JSON ? digest::NO_JSON : digest::LOST, 0, nullptr};
    memmove(text.get(), text.get() + sizeof(head), head.length);
    text.get()[head.length] = '\0';
    return {digest::REPORT, head.periodic, std::move(text)};
}

/* `ended`: by itself, else it is killed and what it has sent counts for nothing. */
static void finish(bool ended)
{
    forget_child(!ended);
    if (!ended)
        used = 0;
    digest result = take_result();
    used = capacity = 0;
    tell(std::move(result));
}

static void child_late(void *)
{
    timer_fired(child_timer);
    finish(false);
}

static bool make_room(void)
{
    if (used + 1 < capacity)
        return true;
    size_t wanted = std::max<size_t>(capacity * 2, size_t{DIGEST_IN_PLACE});
    void *grown = realloc(received, wanted);
    if (!grown)
        return false;
    received = static_cast<char *>(grown);
    capacity = wanted;
    return true;
}

/* One piece at a time: the pipe holds 64 KiB, and others want their turn. */
static void child_wrote(int32_t fd, int32_t, void *)
{
    if (!make_room())
        return finish(false);
    ssize_t got = read(fd, received + used, capacity - 1 - used);
    if (got > 0)
        used += static_cast<size_t>(got);
    else if (got == 0)
        finish(true);
    else if (errno != EINTR && errno != EAGAIN)
        finish(false);
}

static int start_child(const char *answer)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return -1;
    fd_guard reading(ends[0]), writing(ends[1]);
    int32_t session = get_session_id();
    if (ev_add_fd(reading.fd, EV_READ, child_wrote, nullptr) != 0)
        return -1;
    child = fork();
    if (child == 0)
        work(writing.fd, answer, session);
    child_pipe = reading.release();
    if (child < 0) {
        forget_child(false);
        return -1;
    }
    timer_arm(child_timer, DIGEST_LIMIT);
    return 0;
}

void digest_answer(malloc_text answer, size_t length, void (*done)(digest result))
{
    if (length <= DIGEST_IN_PLACE) {
        digest result = digest_in_place(answer.get(), get_session_id());
        answer.reset();
        return done(std::move(result));
    }
    tell = done;
    if (start_child(answer.get()) != 0)
        done({digest::LOST, 0, nullptr});
}

void digest_reset(void)
{
    forget_child(true);
    free(received);
    received = nullptr;
    used = capacity = 0;
}
