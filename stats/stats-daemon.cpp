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
#include "stats/stats-info.h"
#include "stats/stats-report.h"

#define MODULE "wifi.c"

static void answer_late(void *name);

static int g_scm_fd = -1;
static frame_reader answer; /* as much of it as has come */
static named_timer answer_timer = {"STATS ANSWER", answer_late, nullptr};

static void close_daemon(void)
{
    ev_del_fd(g_scm_fd);
    if (g_scm_fd >= 0)
        close(g_scm_fd);
    g_scm_fd = -1;
    frame_clear(&answer);
    timer_disarm(answer_timer);
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

static void send_report(const json_t *result)
{
    const json_t *periodic = json_object_get(result, "periodic");
    const json_t *index = json_object_get(result, "index");
    /* The result is shared with the message, not copied: nobody changes it, and it may be megabytes. */
    json_ptr stats(json_incref(json_object_get(result, "stats_result")));
    (void)send_stats_to_orv(std::move(stats), clamp_to_int32(json_integer_value(periodic)),
                            clamp_to_int32(json_integer_value(index)));
}

static void answer_complete(void)
{
    size_t length = 0;
    malloc_text text(frame_take(&answer, &length));
    timer_disarm(answer_timer);
    json_ptr result(json_loadb(text.get(), length, 0, nullptr));
    text.reset();
    if (!json_is_object(result.get())) {
        LOG(LOG_FAILURE, "Failed to load json");
        return;
    }
    send_report(result.get());
    LOG(LOG_TRACE, "Stats read successfully cleanup g_scm_fd");
    close_daemon();
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
    if (connect(g_scm_fd, reinterpret_cast<const sockaddr *>(&address), length) != 0)
        return -1;
    return ev_add_fd(g_scm_fd, EV_READ, answer_cb, nullptr);
}

int platform_build_and_send_stats(int32_t t_index, int32_t periodic)
{
    malloc_text text = build_request(t_index, periodic);
    if (!text || (g_scm_fd < 0 && open_daemon() != 0))
        return -1;
    if (write_a_msg_within(g_scm_fd, text.get(), strlen(text.get()), STATS_WRITE_LIMIT) != 0) {
        close_daemon();
        return -1;
    }
    return 0;
}

void stats_daemon_reset(void) { close_daemon(); }
