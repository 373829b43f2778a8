#include "stats/stats-daemon.h"

#include <cstddef>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "agent/debug-log.h"
#include "agent/ev.h"
#include "agent/named-timer.h"
#include "agent/owners.h"
#include "agent/text.h"
#include "device/frames.h"
#include "stats/stats-digest.h"
#include "stats/stats-info.h"
#include "stats/stats-report.h"

#define MODULE "wifi.c"

static void answer_cb(int32_t fd, int32_t event, void *arg);
static void answer_late(void *name);

static int g_scm_fd = -1;
static frame_reader answer; /* as much of it as has come */
static bool refused;        /* the connection: its descriptor is kept until the next request */
static bool answered;       /* the answer of this very connection is being digested */
static named_timer answer_timer = {"STATS ANSWER", answer_late, nullptr};

static void close_daemon(void)
{
    ev_del_fd(g_scm_fd);
    if (g_scm_fd >= 0)
        close(g_scm_fd);
    g_scm_fd = -1;
    answered = false;
    frame_clear(&answer);
    timer_disarm(answer_timer);
}

/* Reads what comes, but for one answer at a time. Returns 0 or -1. A refused connection is not watched. */
static int watch_daemon(void)
{
    if (g_scm_fd < 0 || refused || digest_under_way())
        return 0;
    ev_del_fd(g_scm_fd);
    return ev_add_fd(g_scm_fd, EV_READ, answer_cb, nullptr);
}

/* ---- the answer ---- */

static void read_failed(void)
{
    LOG(LOG_FAILURE, "Failed read scm stats");
    close_daemon();
}

static void answer_late(void *)
{
    timer_fired(answer_timer);
    read_failed();
}

/* The answer that was being digested is dealt with. One that was no JSON leaves its connection open. */
static void digested(digest result)
{
    bool same_connection = answered;
    answered = false;
    if (result.outcome == digest::NO_JSON) {
        LOG(LOG_FAILURE, "Failed to load json");
        watch_daemon();
        return;
    }
    (void)send_stats_to_orv(result.text, result.periodic);
    if (result.outcome == digest::REPORT)
        LOG(LOG_TRACE, "Stats read successfully cleanup g_scm_fd");
    if (same_connection)
        close_daemon();
    else
        watch_daemon();
}

/* The connection is not read while its answer is being digested: an answer behind it has to wait. */
static void answer_complete(void)
{
    size_t length = 0;
    malloc_text text(frame_take(&answer, &length));
    timer_disarm(answer_timer);
    answered = true;
    ev_del_fd(g_scm_fd);
    digest_answer(std::move(text), length, digested);
}

static void answer_cb(int32_t fd, int32_t, void *)
{
    int progress = frame_read(&answer, fd);
    if (progress < 0)
        read_failed();
    else if (progress > 0)
        answer_complete();
    else if (!answer_timer.handle)
        timer_arm(answer_timer, STATS_ANSWER_LIMIT);
}

/* ---- the request ---- */

static json_t *json_text(const char *text) { return json_string(valid_utf8(text, strlen(text)).c_str()); }

static malloc_text build_request(int32_t t_index, int32_t periodic)
{
    json_ptr fields(json_array()), tables(json_array());
    if (const stats_request *request = g_stats_info[t_index].request.get()) {
        for (int32_t i = 0; i < request->fld_size; i++)
            json_array_append_new(fields.get(), json_text(request->fld_array[i].name));
        for (int32_t i = 0; i < request->tbl_size; i++)
            json_array_append_new(tables.get(), json_text(request->tbl_array[i].name));
    }
    json_ptr message(json_pack("{s:s, s:s, s:i, s:i, s:O, s:O}", "mType", "STATS-GET", "stats-type",
                               "orv-stats", "index", t_index, "periodic", periodic, "fields", fields.get(),
                               "tables", tables.get()));
    return malloc_text(json_dumps(message.get(), JSON_PRESERVE_ORDER));
}

/* A refused connection keeps its descriptor: the next request finds it dead, fails and closes it. */
static int open_daemon(void)
{
    g_scm_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (g_scm_fd < 0)
        return -1;
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    copy_text(address.sun_path, STATS_DAEMON_SOCKET);
    socklen_t length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strlen(address.sun_path));
    refused = connect(g_scm_fd, reinterpret_cast<const sockaddr *>(&address), length) != 0;
    if (refused)
        return -1;
    if (watch_daemon() == 0)
        return 0;
    close_daemon(); /* an answer would never be read */
    return -1;
}

int platform_build_and_send_stats(int32_t t_index, int32_t periodic)
{
    malloc_text text = build_request(t_index, periodic);
    if (answered) /* its one good answer is there: nobody will read another */
        close_daemon();
    if (!text || (g_scm_fd < 0 && open_daemon() != 0))
        return -1;
    if (write_a_msg_within(g_scm_fd, text.get(), strlen(text.get()), STATS_WRITE_LIMIT) != 0) {
        close_daemon();
        return -1;
    }
    return 0;
}

void stats_daemon_reset(void)
{
    digest_reset();
    close_daemon();
}
