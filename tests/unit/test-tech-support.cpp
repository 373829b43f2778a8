#include "operations/tech-support.h"

#include <cerrno>

#include "agent/run.h"
#include "agent/signal-mask.h"
#include "agent/signals.h"
#include "platform/event-trap.h"
#include "protocol/dispatcher.h"
#include "protocol/error-codes.h"
#include "tests/unit/connection-test.h"
#include "tests/unit/stand-in.h"
#include "tests/unit/told.h"

#define SCRIPT "/usr/bin/scripts/techsupport.sh"
#define SCRIPT_STATUS "/run/lab/status/techsupport.sh"
#define SCRIPT_OUTPUT "/run/lab/output/techsupport.sh"
#define REQUEST                                                                                              \
    "{\"msgType\": 113, \"url\": \"https://store.example/x?s=1\", \"filename\": \"ap-7.tar.gz\", "           \
    "\"contentType\": \"application/gzip\"}"
#define STOPPED "{\"msgType\": 414}"

extern "C" int __real_kill(pid_t pid, int number);
extern "C" int __wrap_kill(pid_t pid, int number);

static bool nothing_can_be_killed;

extern "C" int __wrap_kill(pid_t pid, int number)
{
    if (!nothing_can_be_killed)
        return __real_kill(pid, number);
    errno = EPERM;
    return -1;
}

class tech_support_test : public connection_test {
protected:
    void SetUp() override
    {
        connection_test::SetUp();
        nothing_can_be_killed = false;
        saved_script = file_text(SCRIPT);
        clear_recorded("techsupport.sh");
        write_file(SCRIPT_STATUS, "0");
        write_file(SCRIPT_OUTPUT, "the archive");
        for (const char *path : {TECH_SUPPORT_FILE, "/tmp/s3upload.pid", "/tmp/s3upload.arguments"})
            std::filesystem::remove_all(path);
        install_program(PROGRAMS "s3upload", "printf '%s|' \"$@\" >/tmp/s3upload.arguments\n"
                                             "echo $$ >/tmp/s3upload.new\n"
                                             "mv /tmp/s3upload.new /tmp/s3upload.pid; exec sleep 1000");
        connect_agent();
        cancel_registration();
        cancel_ping_timer();
        clear_told();
    }
    void TearDown() override
    {
        nothing_can_be_killed = false;
        connection_test::TearDown();
        write_file(SCRIPT, saved_script);
        chmod(SCRIPT, 0755);
        for (const char *path : {SCRIPT_STATUS, SCRIPT_OUTPUT})
            std::filesystem::remove(path);
    }

    static void clear_told(void)
    {
        purge_txq();
        library.wire.clear();
        clear_log();
    }
    static int controller_sends(std::string text)
    {
        return handle_orv_msg(text.data(), text.size(), nullptr);
    }
    /* The uploading program, running. */
    static pid_t uploader(void)
    {
        EXPECT_TRUE(comes_true([] { return number_in("/tmp/s3upload.pid") > 0; }));
        return number_in("/tmp/s3upload.pid");
    }
    static std::string unpacked(void)
    {
        run_shell("gzip -dc " TECH_SUPPORT_FILE " >/tmp/unpacked");
        return file_text("/tmp/unpacked");
    }

    std::string saved_script;
};

static std::string failure(const std::string &code, const std::string &message)
{
    return "{\"msgType\": 713, \"code\": \"" + code + "\", \"message\": \"" + message + "\"}";
}

/* ---- the request ---- */

TEST_F(tech_support_test, no_request_is_an_internal_error)
{
    EXPECT_EQ(parse_tech_support_request(nullptr, error_string), 7);
    EXPECT_STREQ(error_string, "jobj is NULL, ideally this should never happen");
}

TEST_F(tech_support_test, the_first_missing_member_is_named)
{
    static const struct {
        const char *members, *message;
    } rows[] = {
        {"", "S3 upload url is missing"},
        {", \"url\": 5, \"filename\": \"f\", \"contentType\": \"c\"", "S3 upload url is missing"},
        {", \"url\": \"u\"", "S3 upload filename is missing"},
        {", \"url\": \"u\", \"contentType\": \"c\"", "S3 upload filename is missing"},
        {", \"url\": \"u\", \"filename\": null, \"contentType\": \"c\"", "S3 upload filename is missing"},
        {", \"url\": \"u\", \"filename\": \"f\"", "S3 upload file content_type is missing"},
        {", \"url\": \"u\", \"filename\": \"f\", \"contentType\": []",
         "S3 upload file content_type is missing"},
    };
    da.debug_level = LOG_TRACE;
    for (const auto &row : rows) {
        clear_log();
        EXPECT_EQ(controller_sends(std::string("{\"msgType\": 113") + row.members + "}"), 1);
        EXPECT_EQ(take_one_told(), failure("BadRequest", row.message)) << row.members;
        EXPECT_TRUE(was_logged(row.message));
    }
    EXPECT_TRUE(was_logged("handle_orv_msg: MSG_TECH_SUPPORT_REQUEST received"));
    EXPECT_TRUE(recorded("techsupport.sh").empty());
    EXPECT_EQ(upload_in_progress, 0);
}

TEST_F(tech_support_test, the_archive_is_made_and_uploaded)
{
    EXPECT_EQ(controller_sends(REQUEST), 0);
    EXPECT_EQ(upload_in_progress, 1);
    EXPECT_EQ(unpacked(), "the archive");
    (void)uploader();
    EXPECT_EQ(file_text("/tmp/s3upload.arguments"),
              "https://store.example/x?s=1|/tmp/techsupport.tar.gz|application/gzip|ap-7.tar.gz|"
              "/tmp/heron_event_sock|");
    EXPECT_TRUE(was_logged("S3 upload url = https://store.example/x?s=1 "));
    EXPECT_TRUE(was_logged("S3 file = ap-7.tar.gz "));
    EXPECT_TRUE(was_logged("S3 content-type = application/gzip "));
    EXPECT_TRUE(was_logged("Inside upload child process"));
    EXPECT_TRUE(was_logged_beginning("Inside Upload parent process "));
    EXPECT_TRUE(take_told().empty()) << "the program tells what becomes of it";
}

static size_t told_meanwhile;

TEST_F(tech_support_test, earlier_answers_do_not_wait_for_the_archive)
{
    told_meanwhile = 0;
    hooks.beat = [] { told_meanwhile = library.wire.size(); };
    EXPECT_EQ(controller_sends("{\"msgType\": 114}"), 0);
    EXPECT_EQ(library.wire.size(), 0u);
    EXPECT_EQ(controller_sends(REQUEST), 0);
    EXPECT_EQ(told_meanwhile, 1u) << "and the heartbeat goes on";
}

/* ---- the archive's place ---- */

TEST_F(tech_support_test, the_archive_is_for_roots_eyes)
{
    write_file(TECH_SUPPORT_FILE, "an older and longer archive, readable for all");
    chmod(TECH_SUPPORT_FILE, 0644);
    EXPECT_EQ(platform_gen_tech_support(), 0);
    struct stat status = {};
    ASSERT_EQ(stat(TECH_SUPPORT_FILE, &status), 0);
    EXPECT_EQ(status.st_mode & 07777u, 0600u);
    EXPECT_EQ(unpacked(), "the archive");
}

TEST_F(tech_support_test, the_archive_is_never_written_through_a_link)
{
    write_file("/tmp/precious", "mine");
    std::filesystem::create_symlink("/tmp/precious", TECH_SUPPORT_FILE);
    EXPECT_EQ(platform_gen_tech_support(), 0);
    EXPECT_EQ(file_text("/tmp/precious"), "mine");
    EXPECT_EQ(unpacked(), "the archive");
}

TEST_F(tech_support_test, a_place_that_is_taken_makes_no_archive)
{
    std::filesystem::create_directories(TECH_SUPPORT_FILE "/occupied");
    EXPECT_EQ(platform_gen_tech_support(), 0);
    EXPECT_TRUE(recorded("techsupport.sh").empty());
    EXPECT_TRUE(was_logged_beginning("platform_gen_tech_support: /tmp/techsupport.tar.gz: "));
    std::filesystem::remove_all(TECH_SUPPORT_FILE);
}

TEST_F(tech_support_test, a_script_that_fails_does_not_stop_the_upload)
{
    std::filesystem::remove(SCRIPT);
    EXPECT_EQ(controller_sends(REQUEST), 0);
    EXPECT_EQ(upload_in_progress, 1);
    EXPECT_EQ(unpacked(), "");
}

/* ---- one at a time ---- */

TEST_F(tech_support_test, a_second_request_is_refused_and_builds_nothing)
{
    EXPECT_EQ(controller_sends(REQUEST), 0);
    pid_t first = uploader();
    EXPECT_EQ(controller_sends(REQUEST), 10);
    EXPECT_EQ(take_one_told(), failure("UploadInProgress", "Another upload is in progress"));
    EXPECT_TRUE(was_logged("Another upload is in progress"));
    EXPECT_EQ(controller_sends("{\"msgType\": 113}"), 10) << "before it is looked at";
    (void)take_told();
    EXPECT_EQ(recorded("techsupport.sh").size(), 1u);
    EXPECT_FALSE(has_ended(first));
}

/* ---- the program ---- */

TEST_F(tech_support_test, the_end_of_the_program_is_seen_within_a_second)
{
    install_program(PROGRAMS "s3upload", "echo 12 percent; echo trouble >&2; exit 2");
    int descriptors = ev_count_fds();
    EXPECT_EQ(controller_sends(REQUEST), 0);
    EXPECT_TRUE(run_until([] { return upload_in_progress == 0; }, 100000));
    EXPECT_TRUE(was_logged("Upload process exited ."));
    EXPECT_TRUE(was_logged("Upload_log:12 percent\ntrouble\n") ||
                (was_logged("Upload_log:12 percent\n") && was_logged("Upload_log:trouble\n")) ||
                (was_logged("Upload_log:12 percent\ntrouble") || was_logged("Upload_log:trouble")))
        << file_text(AGENT_LOG_FILE);
    EXPECT_EQ(ev_count_fds(), descriptors);
    EXPECT_TRUE(take_told().empty()) << "the agent says nothing itself";
    run_seconds(10);
    EXPECT_EQ(times_logged_beginning("Upload process exited ."), 1);
    EXPECT_EQ(controller_sends(REQUEST), 0) << "the next one can come";
}

TEST_F(tech_support_test, it_is_looked_at_every_second)
{
    EXPECT_EQ(controller_sends(REQUEST), 0);
    run_seconds(30);
    EXPECT_GE(times_logged_beginning("Upload process is active"), 30 / 2 - 1);
    EXPECT_LE(times_logged_beginning("Upload process is active"), 30);
}

TEST_F(tech_support_test, a_program_that_cannot_be_executed_has_ended)
{
    std::filesystem::remove(PROGRAMS "s3upload");
    EXPECT_EQ(controller_sends(REQUEST), 0);
    EXPECT_TRUE(run_until([] { return upload_in_progress == 0; }, 100000));
    EXPECT_TRUE(was_logged("Failed to execvp s3upload process errno=" + std::to_string(ENOENT)));
}

/* ---- stopping ---- */

TEST_F(tech_support_test, stopping_without_an_upload_is_answered_with_414)
{
    EXPECT_EQ(controller_sends("{\"msgType\": 114}"), 0);
    EXPECT_EQ(take_one_told(), STOPPED);
    EXPECT_TRUE(was_logged("handle_orv_msg: MSG_TECH_SUPPORT_ABORT received"));
    EXPECT_TRUE(was_logged("build_and_send_tech_support_abort_response: JSON Object: [{\"msgType\": 414}]"));
}

TEST_F(tech_support_test, stopping_ends_the_upload_at_once)
{
    int timers = ev_count_timers(), descriptors = ev_count_fds();
    EXPECT_EQ(controller_sends(REQUEST), 0);
    pid_t program = uploader();
    EXPECT_EQ(controller_sends("{\"msgType\": 114}"), 0);
    EXPECT_EQ(take_one_told(), STOPPED);
    EXPECT_TRUE(has_ended(program));
    EXPECT_TRUE(was_logged("Stopping upload proceess " + std::to_string(program) + " "));
    EXPECT_EQ(upload_in_progress, 0);
    EXPECT_EQ(ev_count_timers(), timers);
    EXPECT_EQ(ev_count_fds(), descriptors);
    run_seconds(10);
    EXPECT_EQ(times_logged_beginning("Upload process"), 0);
    EXPECT_EQ(controller_sends(REQUEST), 0) << "the next one can come";
}

TEST_F(tech_support_test, an_upload_that_has_just_ended_can_be_stopped_too)
{
    install_program(PROGRAMS "s3upload", "echo $$ >/tmp/s3upload.pid");
    EXPECT_EQ(controller_sends(REQUEST), 0);
    EXPECT_TRUE(comes_true([] { return has_ended(uploader()); }));
    EXPECT_EQ(controller_sends("{\"msgType\": 114}"), 0);
    EXPECT_EQ(take_one_told(), STOPPED);
}

TEST_F(tech_support_test, an_upload_that_cannot_be_stopped_runs_on)
{
    EXPECT_EQ(controller_sends(REQUEST), 0);
    pid_t program = uploader();
    nothing_can_be_killed = true;
    EXPECT_EQ(controller_sends("{\"msgType\": 114}"), -1);
    nothing_can_be_killed = false;
    EXPECT_EQ(take_one_told(), "{\"msgType\": 714}");
    EXPECT_TRUE(was_logged("Failed to kill tech support upload process Operation not permitted"));
    EXPECT_FALSE(has_ended(program));
    EXPECT_EQ(upload_in_progress, 1);
    run_seconds(5);
    EXPECT_TRUE(was_logged("Upload process is active"));
}

TEST_F(tech_support_test, a_connection_lost_while_the_archive_is_made_does_no_harm)
{
    signals_block();
    platform_init_signal_handler();
    install_program(SCRIPT, "kill -USR1 " + std::to_string(getpid()) + "; echo x");
    EXPECT_EQ(controller_sends(REQUEST), 0);
    EXPECT_EQ(upload_in_progress, 1);
    EXPECT_EQ(controller_sends("{\"msgType\": 114}"), 0);
    EXPECT_TRUE(take_told().empty());
    for (int number : {SIGHUP, SIGUSR1, SIGTERM})
        signal(number, SIG_DFL);
}
