#include "operations/radio-scan.h"

#include <string>
#include <vector>

#include <sys/resource.h>

#include "device/tavosmac2name.h"
#include "protocol/error-codes.h"
#include "tests/unit/radio-scan-test.h"

/* The registry knows one maker. */
extern "C" const char *mac2name(const unsigned char *mac) { return mac[0] == 2 ? "Velmora \xFF" : "Unknown"; }

static const std::string mac("\x02\xAB\x5E\xFF\x00\x0A", 6);

/* ---- results ---- */

TEST_F(radio_scan, a_result)
{
    begin();
    reply(scan_header(1, 2, 2) + channel_bytes(36, 5, -95, 2) + channel_bytes(40, -1, INT32_MIN, INT32_MAX) +
          neighbour_bytes(mac, "Bakery", "WPA2", 36, -61) + neighbour_bytes("abcdef", "", "open", 40, -90));
    EXPECT_EQ(take_one_queued(),
              "{\"msgType\": 411, \"status\": \"Complete\", \"band\": \"5GHz\", \"channelInfo\": ["
              "{\"channel\": 36, \"interference\": 5, \"noise\": -95, \"numAps\": 2}, "
              "{\"channel\": 40, \"interference\": -1, \"noise\": -2147483648, \"numAps\": 2147483647}], "
              "\"neighborInfo\": ["
              "{\"bssid\": \"02-AB-5E-FF-00-0A\", \"manufacturer\": \"Velmora \xEF\xBF\xBD\", "
              "\"ssid\": \"Bakery\", \"channel\": 36, \"signal\": -61, \"encryption\": \"WPA2\"}, "
              "{\"bssid\": \"61-62-63-64-65-66\", \"manufacturer\": \"Unknown\", "
              "\"ssid\": \"\", \"channel\": 40, \"signal\": -90, \"encryption\": \"open\"}]}");
    expect_over();
    for (const char *line :
         {"handle_orv_msg: MSG_RADIO_SCAN_REQUEST received", "Got request to scan band : 5GHz ",
          "Sent start scan message", "Got scan result", "Got scan result of size 220"})
        EXPECT_TRUE(was_logged(line)) << line;
}

TEST_F(radio_scan, the_first_channel_tells_the_band)
{
    struct {
        int32_t channel;
        const char *band;
    } rows[] = {{36, "5GHz"},  {11, "2.4GHz"}, {14, "2.4GHz"},        {15, "5GHz"},  {1, "2.4GHz"},
                {0, "2.4GHz"}, {-1, "2.4GHz"}, {INT32_MIN, "2.4GHz"}, {165, "5GHz"}, {INT32_MAX, "5GHz"}};
    for (const auto &row : rows) {
        begin();
        reply(scan_header(1, 0, 2) + channel_bytes(row.channel, 0, 0, 0) + channel_bytes(6, 0, 0, 0));
        std::string start =
            std::string("{\"msgType\": 411, \"status\": \"Complete\", \"band\": \"") + row.band + "\"";
        EXPECT_EQ(take_one_queued().substr(0, start.size()), start) << row.channel;
    }
}

TEST_F(radio_scan, without_channels_the_band_is_the_requested_one)
{
    static const char rest[] = "\", \"channelInfo\": [], \"neighborInfo\": []}";
    begin();
    reply(scan_header(1, 0, 0));
    EXPECT_EQ(take_one_queued(),
              std::string("{\"msgType\": 411, \"status\": \"Complete\", \"band\": \"5GHz") + rest);
    device.sku = 3;
    begin("2.4GHz");
    reply(scan_header(1, 0, 0));
    EXPECT_EQ(take_one_queued(),
              std::string("{\"msgType\": 411, \"status\": \"Complete\", \"band\": \"2.4GHz") + rest);
    begin("2.4GHz");
    reply(scan_header(1, 1, 0) + neighbour_bytes(mac, "x", "y", 44, 0));
    EXPECT_NE(take_one_queued().find("\"band\": \"2.4GHz\""), std::string::npos)
        << "a neighbour is no channel";
}

TEST_F(radio_scan, texts_of_any_encoding_become_utf8)
{
    begin();
    reply(scan_header(1, 1, 0) + neighbour_bytes(mac, "caf\xE9 \x1B[2J\"", std::string(34, '\xC3'), 36, -61));
    std::string message = take_one_queued();
    EXPECT_NE(message.find("\"ssid\": \"caf\xEF\xBF\xBD \\u001B[2J\\\"\""), std::string::npos) << message;
    json_ptr read(json_loads(message.c_str(), 0, nullptr));
    EXPECT_NE(read, nullptr);
}

TEST_F(radio_scan, the_largest_result_arrives_whole)
{
    begin();
    std::string text = scan_header(1, 255, 255);
    for (int i = 0; i < 255; i++)
        text += channel_bytes(36, 0, 0, i);
    for (int i = 0; i < 255; i++)
        text += neighbour_bytes(mac, "a", "b", i, 0);
    daemon.say(text);
    EXPECT_TRUE(run_until([] { return scan_in_progress == 0; }, 1));
    EXPECT_TRUE(was_logged("Got scan result of size 26532"));
    std::string message = take_one_queued();
    EXPECT_NE(message.find("\"numAps\": 254}"), std::string::npos);
    EXPECT_NE(message.find("\"channel\": 254,"), std::string::npos);
}

/* ---- pieces ---- */

TEST_F(radio_scan, a_result_in_pieces)
{
    std::string text =
        scan_header(1, 1, 1) + channel_bytes(36, 0, 0, 0) + neighbour_bytes(mac, "a", "b", 36, -1);
    for (size_t size : {1u, 3u, 11u, 12u, 100u}) {
        begin();
        for (size_t at = 0; at < text.size(); at += size) {
            EXPECT_EQ(txq, nullptr) << size << " " << at;
            reply(text.substr(at, size));
        }
        EXPECT_EQ(take_one_queued().substr(0, 15), "{\"msgType\": 411") << size;
        expect_over();
    }
    EXPECT_EQ(times_logged_beginning("Got scan result of size 116"), 5);
    EXPECT_EQ(times_logged_beginning("Got scan result"), 10) << "not one for each piece";
}

TEST_F(radio_scan, a_result_that_stops_is_a_failure)
{
    begin();
    reply(scan_header(1, 0, 1) + std::string(15, 'x'));
    EXPECT_EQ(scan_in_progress, 1);
    EXPECT_EQ(txq, nullptr);
    int64_t begun = fake_clock_now();
    EXPECT_TRUE(run_until([] { return txq != nullptr; }, 10));
    EXPECT_GE(fake_clock_now() - begun, 2000000);
    EXPECT_EQ(take_one_queued(), failure("Incomplete scan result from the Wi-Fi daemon"));
    EXPECT_TRUE(was_logged("Scan result is incomplete"));
    expect_over();
}

TEST_F(radio_scan, dripping_does_not_put_it_off)
{
    begin();
    reply(scan_header(1, 255, 255));
    int drips = 0;
    for (; drips < 40 && !txq; drips++) {
        fake_clock_advance(0, 100000);
        reply("x");
    }
    EXPECT_EQ(drips, 20) << "two seconds";
    EXPECT_EQ(take_one_queued(), failure("Incomplete scan result from the Wi-Fi daemon"));
}

TEST_F(radio_scan, a_connection_that_ends_within_the_result)
{
    for (size_t length : {0u, 3u, 4u, 11u, 12u, 27u}) {
        begin();
        std::string text = scan_header(1, 0, 1) + channel_bytes(36, 0, 0, 0);
        if (length > 0)
            reply(text.substr(0, length));
        daemon.hang_up();
        ev_main();
        EXPECT_EQ(take_one_queued(), failure("Incomplete scan result from the Wi-Fi daemon")) << length;
        EXPECT_EQ(scan_in_progress, 0);
        EXPECT_EQ(ev_count_fds() + ev_count_timers(), 0);
        EXPECT_TRUE(was_logged("Got scan result of size " + std::to_string(length)));
    }
}

TEST_F(radio_scan, counts_that_lie)
{
    begin();
    std::string text = scan_header(1, 255, 1) + channel_bytes(36, 0, 0, 0);
    reply(text + std::string(8192 - text.size(), 'x'));
    daemon.hang_up();
    EXPECT_TRUE(run_until([] { return txq != nullptr; }, 5));
    EXPECT_EQ(take_one_queued(), failure("Incomplete scan result from the Wi-Fi daemon"));
}

/* ---- failures ---- */

TEST_F(radio_scan, the_daemon_tells_a_failure)
{
    begin();
    reply(failure_bytes(std::string("radio is \xE9 \"off\"\0more", 21)));
    EXPECT_EQ(take_one_queued(), failure("radio is \xEF\xBF\xBD \\\"off\\\""));
    expect_over();
    EXPECT_EQ(times_logged_beginning("Got scan result of size 31"), 1);
}

TEST_F(radio_scan, a_failure_without_a_nul)
{
    begin();
    reply(failure_bytes("radio is"));
    EXPECT_EQ(txq, nullptr);
    reply(" off");
    daemon.hang_up();
    ev_main();
    EXPECT_EQ(take_one_queued(), failure("radio is off"));
    begin();
    reply(failure_bytes("radio is off"));
    EXPECT_TRUE(run_until([] { return txq != nullptr; }, 5)) << "also when the daemon stays";
    EXPECT_EQ(take_one_queued(), failure("radio is off"));
    expect_over();
}

TEST_F(radio_scan, a_failure_without_a_text)
{
    begin();
    reply(failure_bytes(std::string(1, '\0')));
    EXPECT_EQ(take_one_queued(), failure(""));
    begin();
    reply(number_bytes(2));
    EXPECT_TRUE(run_until([] { return txq != nullptr; }, 5));
    EXPECT_EQ(take_one_queued(), failure(""));
}

TEST_F(radio_scan, a_text_without_end_has_a_limit)
{
    begin();
    std::string flood = failure_bytes(std::string(200000, 'x'));
    size_t sent = 0;
    for (int i = 0; i < 100 && !txq; i++) {
        ssize_t length =
            send(daemon.peer, flood.data() + sent, std::min<size_t>(flood.size() - sent, 5000), MSG_NOSIGNAL);
        sent += length > 0 ? static_cast<size_t>(length) : 0;
        ev_main();
    }
    std::string message = take_one_queued();
    EXPECT_GT(message.size(), 26000u);
    EXPECT_LT(message.size(), 40000u);
    EXPECT_EQ(scan_in_progress, 0);
}

TEST_F(radio_scan, other_types_are_ignored)
{
    for (int32_t type : {0, 3, -1, 0x01000000}) {
        begin();
        reply(scan_header(type, 1, 1));
        EXPECT_EQ(txq, nullptr) << type;
        expect_over();
    }
    EXPECT_TRUE(was_logged("Ignoring scan result of type 4294967295"));
}

TEST_F(radio_scan, silence_has_an_end)
{
    begin();
    int64_t begun = fake_clock_now();
    EXPECT_TRUE(run_until([] { return txq != nullptr; }, 130));
    EXPECT_GE(fake_clock_now() - begun, 120000000);
    EXPECT_EQ(take_one_queued(), failure("No scan result from the Wi-Fi daemon"));
    EXPECT_TRUE(was_logged("No scan result within 120 seconds"));
    expect_over();
    begin();
    reply(scan_header(1, 0, 0));
    EXPECT_EQ(take_queued().size(), 1u) << "and the next one works";
    run_seconds(300);
    EXPECT_EQ(txq, nullptr);
}

/* ---- the daemon that is not there ---- */

TEST_F(radio_scan, without_the_daemon)
{
    daemon.end();
    EXPECT_EQ(ask("5GHz"), 0);
    EXPECT_TRUE(was_logged("Failed to send start scan message"));
    EXPECT_EQ(take_one_queued(), failure("Failed to send start scan message"));
    EXPECT_EQ(scan_in_progress, 0);
    EXPECT_EQ(ev_count_fds() + ev_count_timers(), 0);
    daemon.listen_at();
    begin();
}

TEST_F(radio_scan, a_daemon_that_accepts_nobody)
{
    daemon.end();
    daemon.listen_at(0);
    local_end first(SOCK_STREAM, SCAN_SOCKET);
    EXPECT_GE(first.fd, 0);
    EXPECT_EQ(ask("5GHz"), 0);
    EXPECT_EQ(take_one_queued(), failure("Failed to send start scan message"));
    EXPECT_EQ(ev_count_fds(), 0);
}

TEST_F(radio_scan, without_a_descriptor)
{
    struct rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    int lowest = dup(0);
    close(lowest);
    struct rlimit none = {static_cast<rlim_t>(lowest), limit.rlim_max};
    da.debug_level = LOG_TRACE;
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_EQ(platform_start_radio_scan("5GHz", 1), -1);
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_EQ(take_one_queued(), failure("Failed to open socket for scanning"));
    EXPECT_EQ(scan_in_progress, 0);
    EXPECT_EQ(daemon.request(), "(nobody)");
}

TEST_F(radio_scan, a_descriptor_that_the_loop_cannot_hold)
{
    struct rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    struct rlimit more = {2048, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &more), 0);
    std::vector<int> taken;
    for (int fd = dup(0); fd >= 0 && fd < EV_FD_LIMIT; fd = dup(0))
        taken.push_back(fd);
    EXPECT_EQ(platform_start_radio_scan("5GHz", 1), -1);
    for (int fd : taken)
        close(fd);
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_EQ(take_one_queued(), failure("Failed to open socket for scanning"));
    EXPECT_TRUE(was_logged_beginning("Failed to open socket for scanning "));
    EXPECT_EQ(scan_in_progress, 0);
}

TEST_F(radio_scan, a_daemon_that_hangs_up_on_the_request)
{
    EXPECT_EQ(ask("5GHz"), 0);
    close(accept(daemon.listener, nullptr, nullptr)); /* what it has not read resets the connection */
    ev_main();
    EXPECT_TRUE(was_logged("Failed to receive scan results"));
    EXPECT_EQ(take_one_queued(), failure("Failed to receive scan results"));
    EXPECT_EQ(scan_in_progress, 0);
    EXPECT_EQ(ev_count_fds() + ev_count_timers(), 0);
}

/* ---- requests ---- */

TEST_F(radio_scan, without_a_band_nothing_happens)
{
    for (const char *text :
         {"{\"msgType\": 111}", "{\"msgType\": 111, \"band\": 5}", "{\"msgType\": 111, \"band\": null}",
          "{\"msgType\": 111, \"Band\": \"5GHz\"}"}) {
        EXPECT_EQ(handle(text), 0) << text;
        EXPECT_EQ(txq, nullptr) << text;
        EXPECT_EQ(daemon.request(), "(nobody)") << text;
    }
}

TEST_F(radio_scan, a_band_that_is_none)
{
    for (const char *band : {"5ghz", "2.4ghz", "5 GHz", "", "6GHz", "5GHz ", "%s%n"}) {
        EXPECT_EQ(ask(band), 5) << band;
        EXPECT_EQ(take_one_queued(), failure("Invalid band specified", "InvalidInput")) << band;
    }
    EXPECT_TRUE(was_logged("Radio scan failure : Invalid band specified"));
    EXPECT_TRUE(was_logged("Got request to scan band : 5ghz "));
    EXPECT_EQ(daemon.request(), "(nobody)");
}

TEST_F(radio_scan, one_at_a_time)
{
    begin();
    EXPECT_EQ(ask("5GHz"), 1);
    EXPECT_EQ(take_one_queued(), failure("Radio scan already in progress, please wait"));
    EXPECT_TRUE(was_logged("Radio scan failure : Radio scan already in progress, please wait"));
    EXPECT_EQ(ask("2.4GHz"), 1) << "before the band is looked at closer";
    purge_txq();
    EXPECT_EQ(ask("6GHz"), 5);
    purge_txq();
    reply(scan_header(1, 0, 0));
    EXPECT_EQ(take_queued().size(), 1u);
    begin();
}

TEST_F(radio_scan, an_absent_request)
{
    char text[ERROR_STRING_SIZE] = "";
    EXPECT_EQ(parse_radio_scan_request(nullptr, text, 1), 7);
    EXPECT_STREQ(text, "jobj is NULL, ideally this should never happen");
    EXPECT_TRUE(was_logged("jobj is NULL, ideally this should never happen"));
}

TEST_F(radio_scan, the_variant_decides_on_the_band)
{
    struct {
        int sku;
        bool is_5, is_2_4;
    } rows[] = {{-1, false, false}, {0, true, false},   {1, true, false},          {2, true, false},
                {3, false, true},   {4, false, true},   {5, false, true},          {6, false, false},
                {7, false, false},  {11, false, false}, {INT32_MAX, false, false}, {INT32_MIN, false, false}};
    for (const auto &row : rows)
        for (bool is_5 : {true, false}) {
            device.sku = row.sku;
            EXPECT_EQ(ask(is_5 ? "5GHz" : "2.4GHz"), 0) << row.sku;
            if (is_5 ? row.is_5 : row.is_2_4) {
                EXPECT_EQ(daemon.request(), std::string(12, '\0')) << row.sku;
                EXPECT_EQ(txq, nullptr) << row.sku;
            } else {
                EXPECT_EQ(daemon.request(), "(nobody)") << row.sku;
                EXPECT_EQ(take_one_queued(), failure("Device does not support scanning requested band"))
                    << row.sku;
                EXPECT_EQ(ev_count_fds(), 0);
            }
            radio_scan_reset();
        }
    EXPECT_FALSE(was_logged_beginning("Radio scan failure")) << "it is no failure reply";
}

TEST_F(radio_scan, what_a_start_returns)
{
    EXPECT_EQ(platform_start_radio_scan("2.4GHz", 1), -1);
    EXPECT_EQ(platform_start_radio_scan("5GHz", 1), 0);
    radio_scan_reset();
    daemon.end();
    EXPECT_EQ(platform_start_radio_scan("5GHz", 1), 0);
}

/* ---- levels ---- */

struct level_row {
    const char *line;
    int level;
};

TEST_F(radio_scan, lines_have_their_levels)
{
    static const level_row rows[] = {
        {"Got request to scan band : 5GHz ", 2},
        {"Sent start scan message", 2},
        {"Got scan result", 2},
        {"Got scan result of size 12", 2},
        {"Radio scan failure : Radio scan already in progress, please wait", 0},
    };
    for (int level : {0, 1, 2, 3}) {
        clear_log();
        da.debug_level = level;
        begin();
        (void)ask("5GHz");
        purge_txq();
        reply(scan_header(1, 0, 0));
        purge_txq();
        for (const level_row &row : rows)
            EXPECT_EQ(was_logged(row.line), row.level <= level) << row.line << " at level " << level;
    }
}
