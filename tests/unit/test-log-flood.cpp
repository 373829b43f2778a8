/*
 * A program that floods the log server while the log is streamed: real socket, real sender, and what it costs
 * the loop.
 */
#include <algorithm>
#include <cstring>

#include <malloc.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "operations/log-stream.h"
#include "protocol/command-output.h"
#include "tests/unit/connection-test.h"
#include "tests/unit/queued.h"

enum {
    LINES = 100000,
    LONGEST_PASS_MS = 50,
    DEADLINE_S = 60,
};

/* Sends lines as fast as the socket takes them, then one that says so. */
static void flood(void)
{
    fd_guard sender(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, LOG_SERVER_SOCKET, sizeof(address.sun_path) - 1);
    if (connect(sender.fd, reinterpret_cast<struct sockaddr *>(&address), sizeof(address)) != 0)
        _exit(1);
    char line[121];
    for (int i = 0; i < LINES; i++) {
        snprintf(line, sizeof(line), "line %6d %0107d", i, 0);
        if (send(sender.fd, line, strlen(line), 0) < 0)
            _exit(2);
    }
    _exit(0);
}

/* With the address sanitizer, which has an allocator of its own; else absent. */
extern "C" __attribute__((weak)) size_t __sanitizer_get_current_allocated_bytes(void);

static size_t heap_bytes(void)
{
    return __sanitizer_get_current_allocated_bytes ? __sanitizer_get_current_allocated_bytes()
                                                   : mallinfo2().uordblks;
}

/* Milliseconds of one clock, the real one: the program's own stands still. */
static double milliseconds(clockid_t clock)
{
    struct timespec time = {};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) * 1000 + static_cast<double>(time.tv_nsec) / 1e6;
}

static std::string newest_packet;

/* The last piece of the history, as a front end would see it. */
static std::string newest_batch(void)
{
    hooks.write_to_fcgi = [](const char *text, size_t length) {
        newest_packet.assign(text, length);
        return 0;
    };
    (void)stop_orv_logging();
    ts_mode = TS_FOR_FRONT_END;
    start_orv_logging();
    return newest_packet;
}

class log_flood : public connection_test {
protected:
    void SetUp() override
    {
        connection_test::SetUp();
        log_stream_reset();
        command_output_reset();
        da.debug_level = LOG_EVENT;
        da.state = DA_STATE_CONNECTED;
        ts_mode = TS_FOR_CONTROLLER;
        exec_running = 1;
        ASSERT_EQ(log_server_init(), 0);
        start_orv_logging();
        (void)take_queued();
    }
    void TearDown() override
    {
        log_stream_reset();
        command_output_reset();
        da.state = DA_STATE_IDLE;
        connection_test::TearDown();
    }
};

TEST_F(log_flood, neither_holds_the_loop_up_nor_grows_memory)
{
    pid_t child = fork();
    if (child == 0)
        flood();
    double start = milliseconds(CLOCK_REALTIME);
    double longest = 0, longest_by_the_clock = 0;
    size_t most_queued = 0;
    size_t before = heap_bytes();
    int status = -1;
    int seconds = 0;
    for (int passes = 0; status == -1 || passes % 1000 != 0; passes++) {
        double moment = milliseconds(CLOCK_REALTIME);
        double began = milliseconds(CLOCK_THREAD_CPUTIME_ID);
        ev_main();
        longest = std::max(longest, milliseconds(CLOCK_THREAD_CPUTIME_ID) - began);
        longest_by_the_clock = std::max(longest_by_the_clock, milliseconds(CLOCK_REALTIME) - moment);
        if (passes % 1000 != 0)
            continue;
        send_ts_data_cb(nullptr); /* a second of the stream */
        seconds++;
        fake_waits.clear(); /* the clock's own record of the passes */
        for (const std::string &message : take_queued())
            most_queued = std::max(most_queued, message.size());
        ASSERT_LT(milliseconds(CLOCK_REALTIME) - start, DEADLINE_S * 1000);
        if (status == -1 && waitpid(child, &status, WNOHANG) == 0)
            status = -1;
    }
    EXPECT_EQ(status, 0) << "the sender ended well";
    double took = milliseconds(CLOCK_REALTIME) - start;
    std::vector<struct timespec>().swap(fake_waits);
    size_t after = heap_bytes();
    printf("%d lines in %.0f ms, longest pass %.2f ms of work, %.2f ms by the clock, heap %zu -> %zu bytes, "
           "largest message %zu of %d\n",
           LINES, took, longest, longest_by_the_clock, before, after, most_queued, seconds);
    /* Work, for the machine may give its time to others. */
    EXPECT_LT(longest, LONGEST_PASS_MS);
    EXPECT_GT(most_queued, 7000u) << "the stream carried them";
    EXPECT_LT(most_queued, 8400u) << "and no more than fits";
    EXPECT_LE(after, before + 65536);
    EXPECT_NE(newest_batch().find("line  99999 "), std::string::npos) << "the last line came, too";
}
