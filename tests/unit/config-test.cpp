#include "tests/unit/config-test.h"

#include <filesystem>

const char copied_to_backup[] = "/bin/cp " CONFIG_FILE " " CONFIG_BACKUP_FILE ".new";
const char copied_back[] = "/bin/cp " CONFIG_BACKUP_FILE " " CONFIG_FILE ".new";
const char shell_saved[] = "/usr/bin/clish -e save";

void remove_config_files(void)
{
    std::filesystem::remove_all("/mnt/flash/config");
    std::filesystem::create_directories("/mnt/flash/config");
    for (const char *path : {PARTIAL_CONFIG_FILE, PARTIAL_CONFIG_FILE ".new"})
        std::filesystem::remove_all(path);
}

void config_test::SetUp()
{
    connection_test::SetUp();
    scm = fake_scm();
    tools = fake_tools();
    reconfig_pending = 0;
    error_string[0] = '\0';
    remove_config_files();
    clear_recorded("clish");
    clear_recorded("shutdown.sh");
    write_file(CONFIG_FILE, OLD_CONFIG);
    write_file(CONFIG_BACKUP_FILE, OLDER_BACKUP);
    connect_agent();
    purge_txq();
    library.wire.clear();
    clear_log();
    timers_before = ev_count_timers();
}

void config_test::TearDown()
{
    connection_test::TearDown();
    remove_config_files();
}

std::string status_message(const std::string &status, const std::string &message)
{
    return "{\"msgType\": 406, \"status\": \"" + status + "\", \"message\": \"" + message + "\"}";
}
