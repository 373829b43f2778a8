#include "operations/config-update.h"

#include <filesystem>

#include <sys/stat.h>

#include "tests/unit/config-test.h"

#define INVALID_ATTRIBUTE "Invalid Config Attribute in json request from Orvanta"
#define NOT_WRITABLE "Not able to open config file for writing"

static const std::string initiated = status_message("Initiated", "Initiated configuration update operation.");
static const std::string in_progress = status_message("InProgress", "Config update in progress");
static const std::string complete = status_message("Complete", "Configuration applied successfully");
static const std::string with_reboot =
    status_message("CompleteWithReboot", "Rebooting device to apply new configuration");

static int apply(const std::string &request)
{
    json_ptr obj(json_loads(request.c_str(), 0, nullptr));
    EXPECT_NE(obj, nullptr) << request;
    return parse_and_apply_config(obj.get(), error_string);
}

static bool flag_exists(void) { return path_exists(DEVICE_RECONFIGURED_FILE); }

/* What the log says of one run, in order, without modules and without the traces of the queue. */
static texts story(const texts &wanted)
{
    texts found;
    for (const std::string &line : logged())
        for (const std::string &text : wanted)
            if (line == "wifi.c:" + text)
                found.push_back(text);
    return found;
}

class config_update : public config_test {
protected:
    static void expect_nothing_touched(void)
    {
        EXPECT_EQ(file_text(CONFIG_FILE), OLD_CONFIG);
        EXPECT_EQ(file_text(CONFIG_BACKUP_FILE), OLDER_BACKUP);
        EXPECT_FALSE(path_exists(PARTIAL_CONFIG_FILE));
        EXPECT_FALSE(flag_exists());
        EXPECT_EQ(reconfig_pending, 0);
        EXPECT_EQ(scm.calls, texts{});
    }
};

/* ---- attributes ---- */

TEST_F(config_update, without_a_request)
{
    EXPECT_EQ(parse_and_apply_config(nullptr, error_string), -1);
    EXPECT_TRUE(was_logged("NULL config json"));
    EXPECT_EQ(take_told(), texts{});
    expect_nothing_touched();
}

TEST_F(config_update, attributes_of_another_shape_are_rejected)
{
    for (const char *request :
         {"{}", "{\"overwrite\": true}", "{\"config\": 5}", "{\"config\": []}", "{\"config\": null}",
          "{\"config\": true}", "{\"nativeConfig\": {}}", "{\"nativeConfig\": null}",
          "{\"config\": {}, \"nativeConfig\": 5}", "{\"config\": \"x\", \"nativeConfig\": []}",
          "{\"config\": 5, \"nativeConfig\": \"x\"}"}) {
        clear_log();
        error_string[0] = '\0';
        EXPECT_EQ(apply(request), 1) << request;
        EXPECT_STREQ(error_string, INVALID_ATTRIBUTE) << request;
        EXPECT_TRUE(was_logged(INVALID_ATTRIBUTE)) << request;
    }
    EXPECT_EQ(take_told(), texts{});
    EXPECT_EQ(tools.ran, texts{});
    expect_nothing_touched();
}

TEST_F(config_update, a_native_part_alone_does_nothing)
{
    EXPECT_EQ(apply("{\"nativeConfig\": \"native\", \"overwrite\": true}"), 0);
    EXPECT_EQ(take_told(), texts{});
    EXPECT_EQ(tools.ran, texts{});
    expect_nothing_touched();
}

TEST_F(config_update, only_true_overwrites)
{
    for (const char *overwrite : {"\"true\"", "1", "null", "false", "{}"}) {
        tools.ran.clear();
        EXPECT_EQ(apply(std::string("{\"config\": \"x\", \"overwrite\": ") + overwrite + "}"), 0);
        EXPECT_EQ(file_text(CONFIG_FILE), OLD_CONFIG) << overwrite;
        EXPECT_EQ(tools.ran.back(), shell_saved) << overwrite;
    }
    EXPECT_EQ(ev_count_timers(), timers_before) << "no reboot";
}

/* ---- objects ---- */

TEST_F(config_update, an_object_goes_to_the_daemon)
{
    texts during;
    scm.during = [&](const std::string &) {
        during = take_told();
        EXPECT_TRUE(flag_exists()) << "before anything is applied";
        EXPECT_EQ(file_text(CONFIG_BACKUP_FILE), OLD_CONFIG);
        EXPECT_EQ(reconfig_pending, 0);
        scm.during = [&](const std::string &) { EXPECT_EQ(take_told(), texts{in_progress}); };
    };
    EXPECT_EQ(apply("{\"msgType\": 106, \"config\": {\"a\": [1, \"b\"]}}"), 0);
    EXPECT_EQ(during, texts{initiated});
    EXPECT_EQ(take_told(), texts{complete});
    EXPECT_EQ(scm.calls, (texts{"config overwrite=0 {\"a\": [1, \"b\"]}", "native overwrite=0 none"}));
    EXPECT_EQ(tools.ran, texts{copied_to_backup});
    EXPECT_EQ(file_text(CONFIG_FILE), OLD_CONFIG) << "the daemon stores it";
    EXPECT_EQ(reconfig_pending, 1);
    EXPECT_TRUE(flag_exists());
    texts lines = {"platform_set_config: Object based configuration update initiated",
                   "platform_set_config: Configuration update in-progress",
                   "platform_set_config: Object based configuration applied successfully"};
    EXPECT_EQ(story(lines), lines);
}

TEST_F(config_update, an_object_with_a_native_part_and_overwrite)
{
    EXPECT_EQ(apply("{\"config\": {}, \"nativeConfig\": \"n%s\", \"overwrite\": true}"), 0);
    EXPECT_EQ(scm.calls, (texts{"config overwrite=1 {}", "native overwrite=1 \"n%s\""}));
    EXPECT_EQ(take_told(), (texts{initiated, in_progress, complete}));
    EXPECT_EQ(ev_count_timers(), timers_before) << "no reboot";
}

struct rejected_row {
    const char *config_error, *native_error, *log;
    texts statuses;
};

TEST_F(config_update, what_the_daemon_rejects_is_reverted)
{
    const rejected_row rows[] = {
        {"no such radio", "", "platform_set_config: Bad config request [no such radio]", {initiated}},
        {"",
         "line 3: what?",
         "platform_set_config: Bad native config request [line 3: what?]",
         {initiated, in_progress}},
    };
    for (const rejected_row &row : rows) {
        tools.ran.clear();
        clear_log();
        scm.config_error = row.config_error;
        scm.native_error = row.native_error;
        std::string error = scm.config_error + scm.native_error;
        EXPECT_EQ(apply("{\"config\": {}, \"nativeConfig\": \"n\"}"), 1) << error;
        EXPECT_EQ(error_string, error);
        EXPECT_EQ(take_told(), row.statuses) << error;
        EXPECT_EQ(tools.ran, (texts{copied_to_backup, "/usr/bin/clish -f " CONFIG_BACKUP_FILE, shell_saved}));
        EXPECT_TRUE(was_logged(row.log));
        EXPECT_TRUE(was_logged("Configuration rejected, restoring last good config"));
        EXPECT_FALSE(flag_exists()) << error;
        EXPECT_FALSE(path_exists(CONFIG_BACKUP_FILE)) << error;
        EXPECT_EQ(reconfig_pending, 0);
    }
}

TEST_F(config_update, the_backup_is_there_while_the_shell_reads_it)
{
    scm.config_error = "no";
    tools.instead = [](const std::vector<std::string> &words) {
        if (words[0] == "/usr/bin/clish") {
            EXPECT_EQ(file_text(CONFIG_BACKUP_FILE), OLD_CONFIG);
        }
        return int{RUN_IT_REALLY};
    };
    EXPECT_EQ(apply("{\"config\": {}}"), 1);
    EXPECT_EQ(recorded("clish"), (texts{"-f " CONFIG_BACKUP_FILE, "-e save"}));
}

TEST_F(config_update, the_daemons_text_is_plain)
{
    scm.config_error = "100% %s %n %d of \"x\"";
    EXPECT_EQ(apply("{\"config\": {}}"), 1);
    EXPECT_STREQ(error_string, "100% %s %n %d of \"x\"");
    EXPECT_TRUE(was_logged("platform_set_config: Bad config request [100% %s %n %d of \"x\"]"));
}

TEST_F(config_update, the_daemons_text_is_cut_between_characters)
{
    scm.config_error = "a" + std::string(1021, 'b') + "\u00e4\u00e4"; /* two bytes each */
    EXPECT_EQ(apply("{\"config\": {}}"), 1);
    EXPECT_EQ(error_string, "a" + std::string(1021, 'b')) << "1023 bytes would end in half a character";
    scm.config_error = std::string(1023, 'b') + "c";
    EXPECT_EQ(apply("{\"config\": {}}"), 1);
    EXPECT_EQ(error_string, std::string(1023, 'b'));
    scm.config_error = "bad \xFF byte";
    EXPECT_EQ(apply("{\"config\": {}}"), 1);
    EXPECT_STREQ(error_string, "bad \uFFFD byte");
}

/* ---- the whole configuration in CLI form ---- */

TEST_F(config_update, a_text_replaces_the_stored_configuration_and_reboots)
{
    ASSERT_EQ(chmod(CONFIG_FILE, 0600), 0);
    EXPECT_EQ(apply("{\"config\": \"hostname new\\nradio \\u00e4 %s\", \"overwrite\": true}"), 0);
    EXPECT_EQ(file_text(CONFIG_FILE), "hostname new\nradio \u00e4 %s") << "no newline is added";
    struct stat status;
    ASSERT_EQ(stat(CONFIG_FILE, &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u) << "secrets stay secrets";
    EXPECT_EQ(file_text(CONFIG_BACKUP_FILE), OLD_CONFIG);
    EXPECT_EQ(take_told(), (texts{in_progress, with_reboot}));
    EXPECT_TRUE(flag_exists());
    EXPECT_EQ(reconfig_pending, 0);
    EXPECT_EQ(tools.ran, texts{copied_to_backup});
    EXPECT_EQ(scm.calls, texts{});
    texts lines = {"platform_set_config: CLI template based configuration update initiated",
                   "Writing RX'd CFG to file",
                   "platform_set_config: Overwriting running config with that received from Orvanta",
                   "Rebooting device in 10 seconds to apply new config"};
    EXPECT_EQ(story(lines), lines);
}

TEST_F(config_update, the_reboot_comes_ten_and_five_seconds_after_the_last_status)
{
    EXPECT_EQ(apply("{\"config\": \"new\", \"overwrite\": true}"), 0);
    EXPECT_EQ(take_told().back(), with_reboot);
    EXPECT_EQ(close_reason_on_wire(), "");
    int closed = seconds_until([] { return close_reason_on_wire() == "DEV_REBOOT"; });
    EXPECT_TRUE(closed >= 10 && closed <= 12) << closed;
    EXPECT_EQ(recorded("shutdown.sh"), texts{});
    int waited = seconds_until([] { return !recorded("shutdown.sh").empty(); });
    EXPECT_TRUE(waited >= 4 && waited <= 7) << waited;
    EXPECT_EQ(recorded("shutdown.sh"), texts{"SRV_CFG_UPD"});
    EXPECT_TRUE(was_logged("** Please standby rebooting device **"));
    EXPECT_TRUE(flag_exists());
}

TEST_F(config_update, an_overwrite_is_not_proven_by_a_pong)
{
    EXPECT_EQ(apply("{\"config\": \"part\"}"), 0);
    EXPECT_EQ(reconfig_pending, 1);
    EXPECT_EQ(apply("{\"config\": \"whole\", \"overwrite\": true}"), 0);
    pong_received();
    EXPECT_TRUE(flag_exists()) << "the new configuration comes into force only with the reboot";
}

TEST_F(config_update, an_empty_and_a_large_text)
{
    EXPECT_EQ(apply("{\"config\": \"\", \"overwrite\": true}"), 0);
    EXPECT_TRUE(path_exists(CONFIG_FILE));
    EXPECT_EQ(file_text(CONFIG_FILE), "");
    std::string large(5000000, 'x');
    EXPECT_EQ(apply("{\"config\": \"" + large + "\", \"overwrite\": true}"), 0);
    EXPECT_EQ(file_text(CONFIG_FILE), large);
}

TEST_F(config_update, a_second_overwrite_before_the_reboot_keeps_the_last_good_backup)
{
    EXPECT_EQ(apply("{\"config\": \"unproven\", \"overwrite\": true}"), 0);
    EXPECT_EQ(apply("{\"config\": \"again\", \"overwrite\": true}"), 0);
    EXPECT_EQ(file_text(CONFIG_FILE), "again");
    EXPECT_EQ(file_text(CONFIG_BACKUP_FILE), OLD_CONFIG);
}

TEST_F(config_update, an_overwrite_goes_down_with_its_flag_though_the_old_one_reconnects)
{
    EXPECT_EQ(apply("{\"config\": \"unproven\", \"overwrite\": true}"), 0);
    EXPECT_TRUE(flag_exists());
    da_enter_state(DA_STATE_DISCONNECTED);
    connect_agent();
    EXPECT_FALSE(flag_exists()) << "connected";
    EXPECT_NE(seconds_until([] { return !recorded("shutdown.sh").empty(); }), -1);
    EXPECT_TRUE(flag_exists()) << "for what comes into force now";
}

TEST_F(config_update, only_a_pong_of_a_later_ping_proves_it)
{
    ws.pong_received = 0; /* a ping is under way, and one before it was lost */
    ws.pong_loss = 1;
    EXPECT_EQ(apply("{\"config\": \"part\"}"), 0);
    pong_received();
    pong_received();
    EXPECT_TRUE(flag_exists());
    pong_received();
    EXPECT_FALSE(flag_exists());
    EXPECT_EQ(reconfig_pending, 0);
}

TEST_F(config_update, a_connection_that_goes_while_the_shell_works_arms_the_way_back)
{
    tools.instead = [](const std::vector<std::string> &words) {
        if (words[1] == "-f")
            da_enter_state(DA_STATE_DISCONNECTED); /* as SIGUSR1 does in the wait */
        return int{RUN_IT_REALLY};
    };
    EXPECT_EQ(apply("{\"config\": \"part\"}"), 0);
    EXPECT_TRUE(flag_exists());
    EXPECT_TRUE(was_logged("Starting cfg_restore_timer"));
}

TEST_F(config_update, the_stored_configuration_cannot_be_created)
{
    std::filesystem::remove(CONFIG_FILE);
    std::filesystem::create_directories(CONFIG_FILE "/folder");
    EXPECT_EQ(apply("{\"config\": \"new\", \"overwrite\": true}"), 7);
    EXPECT_STREQ(error_string, NOT_WRITABLE);
    EXPECT_TRUE(was_logged("Not able to create the config file"));
    EXPECT_EQ(take_told(), texts{in_progress});
    EXPECT_FALSE(flag_exists());
    EXPECT_EQ(file_text(CONFIG_BACKUP_FILE), OLDER_BACKUP);
    EXPECT_EQ(ev_count_timers(), timers_before) << "no reboot";
}

/* ---- a part in CLI form ---- */

TEST_F(config_update, a_partial_text_is_applied_by_the_shell)
{
    tools.instead = [](const std::vector<std::string> &words) {
        if (words[0] == "/usr/bin/clish" && words[1] == "-f") {
            EXPECT_EQ(take_told(), texts{in_progress});
            EXPECT_EQ(file_text(PARTIAL_CONFIG_FILE), "radio 2\n");
            EXPECT_FALSE(flag_exists()) << "the flag comes last";
        }
        return int{RUN_IT_REALLY};
    };
    EXPECT_EQ(apply("{\"config\": \"radio 2\\n\"}"), 0);
    EXPECT_EQ(tools.ran, (texts{copied_to_backup, "/usr/bin/clish -f " PARTIAL_CONFIG_FILE, shell_saved}));
    EXPECT_EQ(recorded("clish"), (texts{"-f " PARTIAL_CONFIG_FILE, "-e save"}));
    EXPECT_EQ(take_told(), texts{complete});
    EXPECT_EQ(file_text(CONFIG_BACKUP_FILE), OLD_CONFIG);
    EXPECT_TRUE(flag_exists());
    EXPECT_EQ(reconfig_pending, 1);
    texts lines = {"platform_set_config: CLI template based configuration update initiated",
                   "Writing RX'd partial CFG to file", "Applying new cfg", "Applied new partial config"};
    EXPECT_EQ(story(lines), lines);
}

TEST_F(config_update, the_shells_exit_codes_are_not_looked_at)
{
    tools.instead = [](const std::vector<std::string> &words) {
        return words[0] == "/usr/bin/clish" ? 0x300 : int{RUN_IT_REALLY};
    };
    EXPECT_EQ(apply("{\"config\": \"radio 2\\n\"}"), 0);
    EXPECT_EQ(take_told(), (texts{in_progress, complete}));
    EXPECT_TRUE(was_logged("run_clish: /usr/bin/clish -e save ended with status 768"));
}

TEST_F(config_update, the_fragment_is_private_and_never_written_through_a_link)
{
    write_file("/tmp/victim", "untouched");
    std::filesystem::create_symlink("/tmp/victim", PARTIAL_CONFIG_FILE);
    EXPECT_EQ(apply("{\"config\": \"secret\"}"), 0);
    EXPECT_EQ(file_text("/tmp/victim"), "untouched");
    struct stat status;
    ASSERT_EQ(lstat(PARTIAL_CONFIG_FILE, &status), 0);
    EXPECT_TRUE(S_ISREG(status.st_mode));
    EXPECT_EQ(status.st_mode & 0777, 0600u);
    EXPECT_EQ(file_text(PARTIAL_CONFIG_FILE), "secret");
}

TEST_F(config_update, the_fragment_cannot_be_created)
{
    std::filesystem::create_directories(PARTIAL_CONFIG_FILE "/folder");
    EXPECT_EQ(apply("{\"config\": \"radio 2\\n\"}"), 7);
    EXPECT_STREQ(error_string, NOT_WRITABLE);
    EXPECT_TRUE(was_logged("Not able to create partial config file"));
    EXPECT_EQ(take_told(), texts{});
    EXPECT_EQ(tools.ran, texts{copied_to_backup});
    EXPECT_FALSE(flag_exists());
    EXPECT_EQ(reconfig_pending, 0);
}

/* ---- the backup ---- */

struct form_row {
    const char *request;
    texts statuses; /* until the backup */
};

TEST_F(config_update, without_a_backup_nothing_is_changed)
{
    const form_row rows[] = {
        {"{\"config\": {}}", {initiated}},
        {"{\"config\": \"x\"}", {}},
        {"{\"config\": \"x\", \"overwrite\": true}", {}},
    };
    for (int status : {0x100, 9, -1})
        for (const form_row &row : rows) {
            tools.instead = [&](const std::vector<std::string> &) { return status; };
            error_string[0] = '\0';
            EXPECT_EQ(apply(row.request), 7) << row.request;
            EXPECT_STREQ(error_string, NOT_WRITABLE) << row.request;
            EXPECT_EQ(take_told(), row.statuses) << row.request;
            expect_nothing_touched();
        }
    EXPECT_EQ(ev_count_timers(), timers_before) << "no reboot";
}

TEST_F(config_update, a_failed_update_leaves_an_earlier_one_to_its_pong)
{
    EXPECT_EQ(apply("{\"config\": \"part\"}"), 0);
    tools.instead = [](const std::vector<std::string> &) { return 0x100; };
    EXPECT_EQ(apply("{\"config\": {}}"), 7);
    EXPECT_TRUE(flag_exists());
    pong_received();
    EXPECT_FALSE(flag_exists());
}

TEST_F(config_update, a_device_without_a_configuration_takes_its_first_one)
{
    for (const char *request :
         {"{\"config\": {}}", "{\"config\": \"x\"}", "{\"config\": \"first\", \"overwrite\": true}"}) {
        std::filesystem::remove(CONFIG_FILE);
        std::filesystem::remove(CONFIG_BACKUP_FILE);
        EXPECT_EQ(apply(request), 0) << request;
        EXPECT_FALSE(path_exists(CONFIG_BACKUP_FILE)) << request;
        EXPECT_TRUE(flag_exists()) << request;
    }
    EXPECT_EQ(file_text(CONFIG_FILE), "first");
}
