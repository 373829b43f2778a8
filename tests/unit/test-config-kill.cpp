#include "operations/config-update.h"

#include <algorithm>
#include <functional>

#include <sys/wait.h>

#include "tests/unit/config-test.h"
#include "tests/unit/fake-power.h"

#define NEW_CONFIG "hostname new\nradio 1\nradio 2\n"

static const char overwrite_request[] =
    "{\"config\": \"hostname new\\nradio 1\\nradio 2\\n\", \"overwrite\": true}";

/* ---- flows ---- */

static void update(const char *request)
{
    json_ptr obj(json_loads(request, 0, nullptr));
    (void)platform_set_config(obj.get(), error_string);
}

static void overwrite(void) { update(overwrite_request); }
static void partial(void) { update("{\"config\": \"radio 2\\n\"}"); }
static void object(void) { update("{\"config\": {}, \"nativeConfig\": \"n\"}"); }

static void rejected_object(void)
{
    scm.native_error = "no";
    object();
}

static void restore(void)
{
    platform_mark_device_reconfigured();
    platform_restore_cfg();
}

struct flow_row {
    const char *name;
    void (*flow)(void);
    texts stored, backup; /* what may be there afterwards, wherever it was cut off */
    int least_steps;
};

static const flow_row flows[] = {
    {"overwrite", overwrite, {OLD_CONFIG, NEW_CONFIG}, {OLDER_BACKUP, OLD_CONFIG}, 12},
    {"partial", partial, {OLD_CONFIG}, {OLDER_BACKUP, OLD_CONFIG}, 12},
    {"object", object, {OLD_CONFIG}, {OLDER_BACKUP, OLD_CONFIG}, 8},
    {"rejected object", rejected_object, {OLD_CONFIG}, {OLDER_BACKUP, OLD_CONFIG, "(none)"}, 12},
    {"restore", restore, {OLD_CONFIG, OLDER_BACKUP}, {OLDER_BACKUP}, 10},
};

/* ---- the power switch ---- */

/* cp can be cut off before, in the middle of and after its writing, and so can the shell before and after. */
static int run_with_switch(const std::vector<std::string> &words)
{
    if (power_goes_now())
        cut_power();
    if (words[0] != "/bin/cp")
        return 0;
    std::string text = file_text(words[1]);
    if (power_goes_now()) {
        write_file(words[2], text.substr(0, text.size() / 2));
        cut_power();
    }
    write_file(words[2], text);
    if (power_goes_now())
        cut_power();
    return 0;
}

/* Runs the flow in a child whose power goes in the call of this number; false when it got through. */
static bool was_cut_off(void (*flow)(void), int call)
{
    pid_t child = fork();
    if (child == 0) {
        calls_until_power_cut = call;
        flow();
        calls_until_power_cut = -1;
        _exit(0);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) || WEXITSTATUS(status) == 0) << status;
    return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
}

static std::string text_or_none(const char *path) { return path_exists(path) ? file_text(path) : "(none)"; }

static bool is_one_of(const std::string &text, const texts &allowed)
{
    return std::find(allowed.begin(), allowed.end(), text) != allowed.end();
}

class config_kill : public config_test {
protected:
    void SetUp() override
    {
        config_test::SetUp();
        tools.instead = run_with_switch;
        renamed_unsynced.clear();
    }
    static void reset_files(void)
    {
        remove_config_files();
        write_file(CONFIG_FILE, OLD_CONFIG);
        write_file(CONFIG_BACKUP_FILE, OLDER_BACKUP);
    }
};

TEST_F(config_kill, no_moment_tears_a_configuration)
{
    for (const flow_row &row : flows) {
        int call = 0;
        for (;; call++) {
            reset_files();
            if (!was_cut_off(row.flow, call))
                break;
            std::string where = std::string(row.name) + ", call " + std::to_string(call);
            EXPECT_TRUE(is_one_of(text_or_none(CONFIG_FILE), row.stored)) << where;
            EXPECT_TRUE(is_one_of(text_or_none(CONFIG_BACKUP_FILE), row.backup)) << where;
        }
        EXPECT_GE(call, row.least_steps) << row.name;
    }
}

TEST_F(config_kill, what_follows_after_any_moment_is_whole)
{
    for (const flow_row &row : flows)
        for (int call = 0;; call++) {
            reset_files();
            bool cut = was_cut_off(row.flow, call);
            std::string where = std::string(row.name) + ", call " + std::to_string(call);
            std::string backup = text_or_none(CONFIG_BACKUP_FILE);
            if (path_exists(DEVICE_RECONFIGURED_FILE)) {
                ASSERT_FALSE(was_cut_off(platform_restore_cfg, -1));
                EXPECT_EQ(file_text(CONFIG_FILE), backup) << where;
            }
            EXPECT_FALSE(path_exists(DEVICE_RECONFIGURED_FILE)) << where;
            ASSERT_FALSE(was_cut_off(overwrite, -1));
            EXPECT_EQ(file_text(CONFIG_FILE), NEW_CONFIG) << where;
            if (!cut)
                break;
        }
}

TEST_F(config_kill, a_cut_off_restore_is_done_by_the_next)
{
    for (int call = 0;; call++) {
        reset_files();
        platform_mark_device_reconfigured();
        if (!was_cut_off(platform_restore_cfg, call))
            break;
        bool restored = file_text(CONFIG_FILE) == OLDER_BACKUP;
        EXPECT_TRUE(restored || path_exists(DEVICE_RECONFIGURED_FILE)) << call;
    }
}

TEST_F(config_kill, what_is_renamed_is_on_the_medium)
{
    for (const flow_row &row : flows) {
        reset_files();
        row.flow();
        EXPECT_EQ(renamed_unsynced, texts{}) << row.name;
    }
}
