#include "platform/address-watch.h"

#include <cerrno>
#include <cstring>
#include <string>

#include <sys/inotify.h>
#include <unistd.h>

#include "agent/da.h"
#include "agent/debug-log.h"
#include "agent/ev.h"
#include "agent/hooks.h"
#include "agent/named-timer.h"
#include "platform/controller-sources.h"

#define MODULE "wifi.c"

#define CLOSE_REASON "DEV_CFG_UPDATE"

/* A file comes into being, is replaced or goes away. Writing alone does not count: who writes also closes. */
static const uint32_t CHANGES = IN_CLOSE_WRITE | IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                                IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
/* The folder itself goes away; or events were lost. */
static const uint32_t WATCH_LOST = IN_IGNORED | IN_UNMOUNT | IN_DELETE_SELF | IN_MOVE_SELF;

enum { MOST_READS = 256 }; /* of 4 KiB in one pass, more than the system keeps for us by default */

struct watched_folder {
    const char *path;
    int watch;      /* -1: none */
    bool complaint; /* that there is none was logged */
};

static watched_folder folders[] = {{"/mnt/flash/config", -1, false}, {"/tmp", -1, false}};

static bool watching;
static int events_fd = -1;
static bool events_complaint;                  /* that there are no events at all was logged */
static int32_t last_wakeup;                    /* seconds */
static std::string seen[CONTROLLER_SOURCES];   /* at the last look */
static std::string judged[CONTROLLER_SOURCES]; /* when they had last been quiet */

static void quiet_cb(void *name);
static void pause_over_cb(void *name);
static named_timer quiet_timer = {"ADDRESS QUIET", quiet_cb, nullptr};
static named_timer pause_timer = {"ADDRESS PAUSE", pause_over_cb, nullptr};

/* ---- what the files say ---- */

/* True when a file says something else than at the last look. */
static bool look(void)
{
    bool news = false;
    for (size_t i = 0; i < CONTROLLER_SOURCES; i++) {
        std::string text = controller_source_text(static_cast<controller_source>(i));
        news = news || text != seen[i];
        seen[i] = text;
    }
    return news;
}

/* True when discovery read something else: a text that came and went unseen, while it blocked the loop. */
static bool discovery_missed_something(void)
{
    for (size_t i = 0; i < CONTROLLER_SOURCES; i++)
        if (told_otherwise(static_cast<controller_source>(i), seen[i]))
            return true;
    return false;
}

/* With every change the quiet time begins anew; rewriting the same text does not stretch it. */
static void look_for_news(void)
{
    if (look() || (!quiet_timer.handle && discovery_missed_something()))
        timer_arm(quiet_timer, ADDRESS_QUIET_TIME);
}

/* The files are quiet: does what they say concern the controller in force? */
static void judge(void)
{
    bool leave = false;
    for (size_t i = 0; i < CONTROLLER_SOURCES; i++) {
        bool counts = told_otherwise(static_cast<controller_source>(i), seen[i]);
        if (counts || seen[i] != judged[i])
            LOG(LOG_EVENT, "%s: %s changed to [%s]%s", "address_watch", controller_sources[i].name,
                seen[i].c_str(), counts ? ", looking for the controller anew" : ", nothing to do");
        judged[i] = seen[i];
        leave = leave || counts;
    }
    if (!leave)
        return;
    forget_controller_sources(SOURCE_STATIC_URL); /* the next pass asks them all */
    call_hook(hooks.address_changed, CLOSE_REASON, sizeof(CLOSE_REASON) - 1);
}

/* ---- events ---- */

static void events_cb(int32_t fd, int32_t event, void *arg);

static void complain(bool *complaint, const char *what)
{
    if (!*complaint)
        LOG(LOG_NOTABLE, "%s: Cannot watch %s: %s; looking every minute", "address_watch", what,
            strerror(errno));
    *complaint = true;
}

static void open_events(void)
{
    if (events_fd >= 0)
        return;
    events_fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (events_fd >= 0 && ev_add_fd(events_fd, EV_READ, events_cb, nullptr) != 0) {
        close(events_fd);
        events_fd = -1;
        errno = EMFILE;
    }
    if (events_fd < 0)
        complain(&events_complaint, "for changes of the controller's address");
    else
        events_complaint = false;
}

/* Watches what now stands at each folder's path: the watch there is, or a new one. */
static void mend_watches(void)
{
    open_events();
    if (events_fd < 0)
        return;
    for (watched_folder &folder : folders) {
        int watch = inotify_add_watch(events_fd, folder.path, CHANGES);
        if (watch < 0)
            complain(&folder.complaint, folder.path);
        else
            folder.complaint = false;
        if (folder.watch >= 0 && folder.watch != watch)
            (void)inotify_rm_watch(events_fd, folder.watch);
        folder.watch = watch;
    }
}

/* True when an event is about one of the files, or about more than can be told. */
static bool concerns_us(const struct inotify_event &event, const char *name)
{
    if (event.mask & IN_Q_OVERFLOW)
        return true;
    for (watched_folder &folder : folders)
        if (event.wd == folder.watch && (event.mask & WATCH_LOST)) {
            timer_arm(quiet_timer, ADDRESS_QUIET_TIME); /* it may be back by then */
            return true;
        }
    if (event.len > 0)
        for (const controller_source_row &source : controller_sources)
            if (strcmp(strrchr(source.path, '/') + 1, name) == 0)
                return true;
    return false;
}

/* Takes the events that have come, and looks if one concerns us. True when there were any. */
static bool serve_events(void)
{
    bool came = false;
    bool concern = false;
    alignas(struct inotify_event) char buffer[4096];
    for (int reads = 0; reads < MOST_READS; reads++) {
        ssize_t length = read(events_fd, buffer, sizeof(buffer));
        if (length <= 0)
            break;
        came = true;
        for (size_t at = 0; at < static_cast<size_t>(length);) {
            struct inotify_event event;
            memcpy(&event, buffer + at, sizeof(event));
            concern = concerns_us(event, buffer + at + sizeof(event)) || concern;
            at += sizeof(event) + event.len;
        }
    }
    if (concern)
        look_for_news();
    return came;
}

/* "/tmp" is everybody's: while it is busy the agent wakes up for it once in a pause only. */
static void events_cb(int32_t, int32_t, void *)
{
    int32_t now = ev_get_time().sec;
    if (now - last_wakeup < ADDRESS_PAUSE) {
        ev_del_fd(events_fd);
        timer_arm(pause_timer, ADDRESS_PAUSE);
    }
    last_wakeup = now;
    (void)serve_events();
}

static void pause_over_cb(void *)
{
    timer_fired(pause_timer);
    if (serve_events())
        timer_arm(pause_timer, ADDRESS_PAUSE);
    else
        (void)ev_add_fd(events_fd, EV_READ, events_cb, nullptr);
}

static void quiet_cb(void *)
{
    timer_fired(quiet_timer);
    mend_watches();
    if (look())
        timer_arm(quiet_timer, ADDRESS_QUIET_TIME);
    else
        judge();
}

/* ---- for the others ---- */

void platform_watch_controller_address(void)
{
    if (stay_idle)
        return;
    watching = true;
    mend_watches();
    for (size_t i = 0; i < CONTROLLER_SOURCES; i++)
        seen[i] = judged[i] = controller_source_text(static_cast<controller_source>(i));
}

void platform_look_at_controller_address(void)
{
    if (!watching)
        return;
    mend_watches();
    look_for_news();
}

void address_watch_reset(void)
{
    timer_disarm(quiet_timer);
    timer_disarm(pause_timer);
    if (events_fd >= 0) {
        ev_del_fd(events_fd);
        close(events_fd);
    }
    events_fd = -1;
    events_complaint = false;
    for (watched_folder &folder : folders)
        folder = {folder.path, -1, false};
    watching = false;
    last_wakeup = 0;
    forget_controller_sources(SOURCE_STATIC_URL);
}
