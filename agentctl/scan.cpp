/*
 * agentctl scan
 */
#include <cstdio>
#include <cstring>
#include <string>

#include "agentctl/check-run.h"
#include "agentctl/exit-codes.h"
#include "agentctl/front-end.h"
#include "agentctl/output.h"
#include "agentctl/usage.h"
#include "agentctl/verbs.h"
#include "operations/radio-scan.h"

/* Milliseconds: a little longer than the agent itself waits for the Wi-Fi daemon (SCAN_LIMIT). */
enum { SCAN_WAIT = (SCAN_LIMIT + 10) * 1000 };

static int number(const json_t *row, const char *name)
{
    return static_cast<int>(json_integer_value(json_object_get(row, name)));
}

static std::string text(const json_t *row, const char *name)
{
    const char *value = json_string_value(json_object_get(row, name));
    return printable_line(value ? value : "");
}

static void print_scan(const json_t *result)
{
    const json_t *channels = json_object_get(result, "channelInfo");
    const json_t *neighbours = json_object_get(result, "neighborInfo");
    printf("Band %s: %zu channels, %zu neighbours\n\n", text(result, "band").c_str(),
           json_array_size(channels), json_array_size(neighbours));
    printf("%-8s %-13s %-6s %s\n", "Channel", "Interference", "Noise", "Access points");
    for (size_t i = 0; i < json_array_size(channels); i++) {
        const json_t *row = json_array_get(channels, i);
        printf("%-8d %-13d %-6d %d\n", number(row, "channel"), number(row, "interference"),
               number(row, "noise"), number(row, "numAps"));
    }
    printf("\n%-18s %-7s %-7s %-20s %-24s %s\n", "BSSID", "Channel", "Signal", "Encryption", "Manufacturer",
           "SSID");
    for (size_t i = 0; i < json_array_size(neighbours); i++) {
        const json_t *row = json_array_get(neighbours, i);
        printf("%-18s %-7d %-7d %-20s %-24s %s\n", text(row, "bssid").c_str(), number(row, "channel"),
               number(row, "signal"), text(row, "encryption").c_str(), text(row, "manufacturer").c_str(),
               text(row, "ssid").c_str());
    }
}

/* Waits for the scan's answer, past whatever else comes. Null with the reason told. */
static json_ptr wait_for_scan(int fd)
{
    int64_t until = milliseconds_now() + SCAN_WAIT;
    for (int64_t left; (left = until - milliseconds_now()) > 0;) {
        json_ptr message;
        received_kind kind = receive_message(fd, static_cast<int>(left), nullptr, &message);
        if (kind == RECEIVED_END) {
            complain("the agent refused the scan");
            return nullptr;
        }
        int type = kind == RECEIVED_MESSAGE ? message_type(message.get()) : -1;
        if (type == FRONT_END_SCANNED || type == FRONT_END_SCAN_FAILED)
            return message;
    }
    complain("no scan result within %d s", SCAN_WAIT / 1000);
    return nullptr;
}

int verb_scan(int argc, char **argv)
{
    bool as_json = argc == 3 && strcmp(argv[1], "--json") == 0;
    if (argc != (as_json ? 3 : 2))
        return usage_error("scan", argc < 2 ? "a band is missing" : "one band at a time");
    const char *band = argv[argc - 1];
    if (strcmp(band, "2.4GHz") != 0 && strcmp(band, "5GHz") != 0)
        return usage_error("scan", "the bands are 2.4GHz and 5GHz, not ", band);
    bool was_running = false;
    fd_guard sock(connect_front_end(false, &was_running));
    if (sock.fd < 0 ||
        send_message(sock.fd, json_pack("{s:i, s:s}", "msgType", FRONT_END_SCAN, "band", band)) != 0)
        return EXIT_UNAVAILABLE;
    json_ptr answer = wait_for_scan(sock.fd);
    if (!answer)
        return EXIT_UNAVAILABLE;
    if (message_type(answer.get()) == FRONT_END_SCAN_FAILED) {
        complain("the scan failed: %s", text(answer.get(), "message").c_str());
        return EXIT_BAD;
    }
    if (as_json)
        print_json(answer.get());
    else
        print_scan(answer.get());
    return EXIT_GOOD;
}
