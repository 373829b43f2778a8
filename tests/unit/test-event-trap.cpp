#include "platform/event-trap.h"

#include <filesystem>

#include "device/db-read.h"
#include "device/tavosutils.h"
#include "tests/unit/connection-test.h"
#include "tests/unit/local-sender.h"
#include "tests/unit/queued.h"

class event_trap : public connection_test {
protected:
    void SetUp() override
    {
        connection_test::SetUp();
        std::filesystem::remove(DB_FILE);
        std::filesystem::remove_all(platform_get_event_sock_path());
        da.state = DA_STATE_CONNECTED;
        https_download_status = DOWNLOAD_RUNNING;
        ASSERT_EQ(platform_event_listener(), 0);
    }
    void TearDown() override
    {
        event_listener_reset();
        da.state = DA_STATE_IDLE;
        std::filesystem::remove(DB_FILE);
        connection_test::TearDown();
    }

    /* A local program sends this, and the loop serves it. */
    static void raise(const std::string &data)
    {
        ASSERT_EQ(send_datagram_to(platform_get_event_sock_path(), data), 0);
        ev_main();
    }
};

static const char trap[] = "{\"msgType\": 699, \"eId\": \"ClientJoined\"}";

TEST_F(event_trap, the_socket_is_at_its_place)
{
    EXPECT_STREQ(platform_get_event_sock_path(), "/tmp/heron_event_sock");
    struct stat status = {};
    ASSERT_EQ(lstat("/tmp/heron_event_sock", &status), 0);
    EXPECT_EQ(status.st_mode, S_IFSOCK | 0660u);
    EXPECT_EQ(ev_count_fds(), 1);
    EXPECT_TRUE(logged().empty());
}

TEST_F(event_trap, an_event_is_forwarded_byte_for_byte)
{
    raise(trap);
    EXPECT_EQ(take_one_queued(), trap);
    EXPECT_TRUE(was_logged("event_rx_cb: Trap Data received, send to Orvanta len=" +
                           std::to_string(sizeof(trap) - 1) + " data [" + std::string(trap) + "]"));
}

TEST_F(event_trap, what_it_says_does_not_matter)
{
    std::string binary;
    for (int byte = 255; byte > 0; byte--)
        binary += static_cast<char>(byte);
    for (const std::string &text :
         {std::string("not JSON"), std::string("{\"msgType\":"), std::string("%s%n%d"), std::string("\n"),
          binary, std::string(2048, 'x')}) {
        raise(text);
        EXPECT_EQ(take_one_queued(), text);
    }
}

TEST_F(event_trap, it_is_forwarded_before_the_controller_has_accepted_the_device)
{
    ASSERT_EQ(da.registered, 0);
    raise(trap);
    EXPECT_EQ(take_one_queued(), trap);
}

TEST_F(event_trap, without_a_connection_it_is_lost)
{
    for (int state : {DA_STATE_IDLE, DA_STATE_DISCOVERY, DA_STATE_CONNECTING}) {
        da.state = state;
        clear_log();
        raise(trap);
        EXPECT_EQ(txq, nullptr);
        EXPECT_TRUE(was_logged("Not connected to Orvanta, cannot send message"));
    }
}

TEST_F(event_trap, the_limit_is_2048_bytes)
{
    for (size_t size : {2047u, 2048u}) {
        raise(std::string(size, 'x'));
        EXPECT_EQ(take_one_queued().size(), size);
    }
    raise(std::string(2048, 'x') + "y");
    EXPECT_EQ(take_one_queued(), std::string(2048, 'x')) << "the rest of a longer one is lost";
    raise(std::string(100000, 'z'));
    EXPECT_EQ(take_one_queued(), std::string(2048, 'z'));
    raise(trap);
    EXPECT_EQ(take_one_queued(), trap) << "and does not come with the next";
}

TEST_F(event_trap, a_text_ends_at_its_first_nul)
{
    raise(std::string("one\0two", 7));
    EXPECT_EQ(take_one_queued(), "one");
    EXPECT_TRUE(was_logged("event_rx_cb: Trap Data received, send to Orvanta len=7 data [one]"));
}

TEST_F(event_trap, an_empty_datagram_sends_nothing)
{
    raise("");
    EXPECT_EQ(txq, nullptr);
    EXPECT_TRUE(was_logged("event_rx_cb: Trap Data received, send to Orvanta len=0 data []"));
    raise(std::string(1, '\0'));
    EXPECT_EQ(txq, nullptr);
}

/* ---- reports ---- */

TEST_F(event_trap, a_completed_download_is_kept_and_not_forwarded)
{
    da.debug_level = LOG_EVENT;
    raise("{\"msgType\":401,\"status\":\"Complete\",\"message\":\"done\"}");
    EXPECT_EQ(https_download_status, 2);
    EXPECT_EQ(txq, nullptr);
    EXPECT_EQ(logged(), std::vector<std::string>{"wifi.c:Firmware download completed"});
}

TEST_F(event_trap, a_failed_download_is_kept_and_not_forwarded)
{
    da.debug_level = LOG_FAILURE;
    raise("{\"msgType\":701");
    EXPECT_EQ(https_download_status, 3);
    EXPECT_EQ(txq, nullptr);
    EXPECT_EQ(logged(), std::vector<std::string>{"wifi.c:Firmware download failed"});
}

TEST_F(event_trap, only_the_exact_prefix_is_a_report)
{
    for (const char *text : {"{\"msgType\": 401}", "{\"msgType\": 701}", " {\"msgType\":401}",
                             "{\"msgType\":40", "{\"msgType\":402}", "{\"msgtype\":401}"}) {
        raise(text);
        EXPECT_EQ(take_one_queued(), text);
    }
    EXPECT_EQ(https_download_status, DOWNLOAD_RUNNING);
}

TEST_F(event_trap, more_digits_do_not_matter_to_a_report)
{
    raise("{\"msgType\":4012}");
    EXPECT_EQ(https_download_status, DOWNLOAD_COMPLETE) << "fourteen characters are looked at";
    EXPECT_EQ(txq, nullptr);
}

TEST_F(event_trap, a_report_counts_without_a_connection)
{
    da.state = DA_STATE_IDLE;
    raise("{\"msgType\":401}");
    EXPECT_EQ(https_download_status, DOWNLOAD_COMPLETE);
}

/* ---- the log level ---- */

TEST_F(event_trap, any_event_takes_a_changed_severity_over)
{
    static const struct {
        const char *severity;
        int level;
    } rows[] = {{"5", 1}, {"0", 1}, {"8", 1}, {"1", 0}, {"6", 2}, {"7", 3}};
    for (const auto &row : rows) {
        write_file(DB_FILE, "{\"logging_syslog_sev\": \"" + std::string(row.severity) + "\"}");
        raise("{\"msgType\":401}");
        EXPECT_EQ(da.debug_level, row.level) << row.severity;
    }
}

TEST_F(event_trap, the_level_is_set_before_the_event_is_looked_at)
{
    write_file(DB_FILE, "{\"logging_syslog_sev\": \"6\"}");
    raise(trap);
    EXPECT_EQ(logged(), std::vector<std::string>{"wifi.c:set_log_level: syslog severity=6"});
}

TEST_F(event_trap, the_configuration_is_read_only_when_it_has_changed)
{
    write_file(DB_FILE, "{\"logging_syslog_sev\": \"7\"}");
    raise(trap);
    unsigned int times = db_times_read();
    for (int i = 0; i < 50; i++)
        raise(trap);
    EXPECT_EQ(db_times_read(), times);
    write_file(DB_FILE, "{\"logging_syslog_sev\": \"6\"}");
    raise(trap);
    EXPECT_EQ(db_times_read(), times + 1);
    (void)take_queued();
}

/* ---- failures ---- */

TEST_F(event_trap, nothing_to_read_is_no_event)
{
    fd_guard quiet(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    event_rx_cb(quiet.fd, EV_READ, nullptr);
    EXPECT_EQ(logged(), std::vector<std::string>{"wifi.c:Not data to read on Trap/Event socket"});
    EXPECT_EQ(txq, nullptr);
}

TEST_F(event_trap, a_place_that_is_taken_is_a_failure_that_leaves_nothing)
{
    event_listener_reset();
    block_place(platform_get_event_sock_path());
    auto open_descriptors = [] {
        auto entries = std::filesystem::directory_iterator("/proc/self/fd");
        return std::distance(entries, std::filesystem::directory_iterator());
    };
    auto before = open_descriptors();
    EXPECT_EQ(platform_event_listener(), -1);
    EXPECT_TRUE(was_logged("bind() of unix domain socket  failed"));
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(ev_count_fds(), 0);
    free_place(platform_get_event_sock_path());
}

TEST_F(event_trap, without_a_descriptor_there_is_no_socket)
{
    event_listener_reset();
    std::vector<int> taken;
    for (int fd; (fd = dup(0)) >= 0;)
        taken.push_back(fd);
    close(taken.back()); /* the log needs one */
    taken.pop_back();
    fd_guard last(dup(0));
    EXPECT_EQ(platform_event_listener(), -1);
    close(last.release());
    for (int fd : taken)
        close(fd);
    EXPECT_EQ(ev_count_fds(), 0);
    EXPECT_EQ(platform_event_listener(), 0) << "later there is one";
}

TEST_F(event_trap, a_descriptor_that_the_loop_cannot_hold_is_no_listener)
{
    event_listener_reset();
    std::vector<int> taken;
    while (taken.empty() || taken.back() < EV_FD_LIMIT - 1)
        taken.push_back(dup(0));
    EXPECT_EQ(platform_event_listener(), -1);
    EXPECT_TRUE(was_logged("Fail to set up unix socket"));
    for (int fd : taken)
        close(fd);
}

/* ---- many ---- */

TEST_F(event_trap, a_flood_is_bounded_by_the_queue)
{
    da.debug_level = LOG_NOTABLE;
    hooks.append_logs = nullptr;
    for (int i = 0; i < 1000; i++)
        raise(std::string(2048, 'x'));
    EXPECT_EQ(txq_mem_size, TXQ_MEM_BUDGET);
    EXPECT_TRUE(was_logged("write_to_orv: TXQ full txq_mem_size=1048576 txq_depth=512 dropping messages"));
    EXPECT_EQ(take_queued().size(), 512u);
}
