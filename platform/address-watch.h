/*
 * The watcher of the controller's address: when a file that names the controller says something else than
 * discovery read there, and has been quiet for ADDRESS_QUIET_TIME, the agent is told to leave for the new
 * controller (hooks.address_changed, reason "DEV_CFG_UPDATE"). Contents are compared, not events:
 * what is rewritten with the same text is no change. Sources behind the one in force have no say, nor has the
 * static URL file while a URL was given with -s.
 *
 * The folders are watched with inotify, so that an idle agent sleeps on. Where that cannot be had, and for
 * what it does not show (the target of a symbolic link, a folder mounted over the one that is watched), there
 * is the look that "DA ALIVE" takes.
 */
#pragma once

enum {
    ADDRESS_QUIET_TIME = 2, /* seconds without a further change */
    ADDRESS_PAUSE = 1,      /* seconds without looking when its folders are busy */
};

/* Begins to watch. With -i (stay_idle) it does nothing, now and later. */
void platform_watch_controller_address(void);

/* Looks at the files without having been told of a change, and mends the watches. */
void platform_look_at_controller_address(void);

/* For tests: ends the watch. */
void address_watch_reset(void);
