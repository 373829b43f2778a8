#include "operations/config-files.h"

#include <cerrno>
#include <cstring>
#include <string>

#include <sys/stat.h>
#include <unistd.h>

#include "agent/debug-log.h"
#include "agent/run.h"
#include "agent/state-file.h"
#include "operations/config-reboot.h"

#define MODULE "wifi.c"

#define CP "/bin/cp"

enum { CONFIG_MODE = 0644, PARTIAL_CONFIG_MODE = 0600 };

/*
 * cp truncates its destination before it fills it, and a device that loses its power in between would start
 * with half a configuration. So it gets the place beside the destination (the same path and ".new"), and what
 * it made is renamed when all of it is on the medium. A marker of an unfinished copy, repaired at start-up,
 * would come too late: the device's own start reads the configuration before the agent does.
 */
static config_copied copy_config(const char *from, const char *to)
{
    const std::string beside = std::string(to) + ".new";
    (void)unlink(beside.c_str()); /* left over from a kill */
    int status = safe_system_run(CP, from, beside.c_str(), static_cast<char *>(nullptr));
    if (status == 0 && adopt_file(beside.c_str(), to) == 0)
        return COPY_DONE;
    LOG(LOG_FAILURE, "%s: Failed to copy %s to %s, " CP " ended with status %d%s%s", "copy_config", from, to,
        status, status == 0 ? ", but " : "", status == 0 ? strerror(errno) : "");
    (void)unlink(beside.c_str());
    return COPY_FAILED;
}

/* Something else in the place of a file, a folder say, is no configuration. */
static bool is_missing(const char *path)
{
    struct stat status;
    if (stat(path, &status) != 0)
        return errno == ENOENT;
    return !S_ISREG(status.st_mode);
}

config_copied backup_config(void)
{
    if (config_reboot_pending()) {
        LOG(LOG_EVENT, "%s: The stored configuration is not in force yet, the backup stays", "backup_config");
        return COPY_DONE;
    }
    if (is_missing(CONFIG_FILE)) {
        LOG(LOG_EVENT, "%s: No stored configuration to back up", "backup_config");
        return COPY_NO_SOURCE;
    }
    return copy_config(CONFIG_FILE, CONFIG_BACKUP_FILE);
}

config_copied restore_config_backup(void)
{
    if (is_missing(CONFIG_BACKUP_FILE)) {
        LOG(LOG_FAILURE, "%s: No backup of the configuration to restore", "restore_config_backup");
        return COPY_NO_SOURCE;
    }
    return copy_config(CONFIG_BACKUP_FILE, CONFIG_FILE);
}

int store_config(std::string_view text)
{
    struct stat status;
    mode_t mode = stat(CONFIG_FILE, &status) == 0 ? status.st_mode & 0777 : mode_t{CONFIG_MODE};
    return replace_file(CONFIG_FILE, text, mode);
}

int store_partial_config(std::string_view text)
{
    return replace_file(PARTIAL_CONFIG_FILE, text, PARTIAL_CONFIG_MODE);
}
