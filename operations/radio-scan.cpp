#include "operations/radio-scan.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "agent/debug-log.h"
#include "agent/ev.h"
#include "agent/local-socket.h"
#include "agent/named-timer.h"
#include "agent/owners.h"
#include "device/tavosmac2name.h"
#include "device/tavosutils.h"
#include "operations/scan-reply.h"
#include "platform/front-end.h"
#include "protocol/error-codes.h"
#include "protocol/message.h"
#include "protocol/scan-failure.h"

#define MODULE "wifi.c"
#define BAND_2_4GHZ "2.4GHz"
#define BAND_5GHZ "5GHz"

enum { FIRST_5GHZ_CHANNEL = 15 }; /* what is below is of the other band */

static void scan_late(void *name);
static void pieces_late(void *name);

int32_t scan_in_progress;

static int scan_fd = -1;         /* the connection to the daemon */
static const char *scanned_band; /* the one that was asked for, a constant */
static std::string pieces;       /* of the reply, as far as it has come */
static named_timer scan_timer = {"RADIO SCAN", scan_late, nullptr};
static named_timer pieces_timer = {"RADIO SCAN REPLY", pieces_late, nullptr};

/* ---- the end of a scan ---- */

static void end_scan(void)
{
    scan_in_progress = 0;
    if (scan_fd >= 0) {
        ev_del_fd(scan_fd);
        close(scan_fd);
    }
    scan_fd = -1;
    pieces.clear();
    pieces.shrink_to_fit();
    timer_disarm(scan_timer);
    timer_disarm(pieces_timer);
}

static void scan_late(void *)
{
    timer_fired(scan_timer);
    LOG(LOG_FAILURE, "No scan result within %d seconds", SCAN_LIMIT);
    end_scan();
    send_scan_failure_msg("No scan result from the Wi-Fi daemon");
}

/* ---- the result ---- */

static void add_channels(const json_ptr &message, const scan_reply &reply)
{
    json_ptr rows(json_array());
    for (const scan_channel &channel : reply.channels) {
        json_ptr row(json_object());
        add_integer(row, "channel", channel.channel);
        add_integer(row, "interference", channel.interference);
        add_integer(row, "noise", channel.noise);
        add_integer(row, "numAps", channel.num_aps);
        json_array_append_new(rows.get(), row.release());
    }
    json_object_set_new(message.get(), "channelInfo", rows.release());
}

static void add_neighbours(const json_ptr &message, const scan_reply &reply)
{
    json_ptr rows(json_array());
    for (const scan_neighbour &neighbour : reply.neighbours) {
        const unsigned char *mac = neighbour.bssid;
        char bssid[sizeof("00-00-00-00-00-00")];
        snprintf(bssid, sizeof(bssid), "%02X-%02X-%02X-%02X-%02X-%02X", mac[0], mac[1], mac[2], mac[3],
                 mac[4], mac[5]);
        json_ptr row(json_object());
        add_text(row, "bssid", bssid);
        add_text(row, "manufacturer", mac2name(mac));
        add_text(row, "ssid", neighbour.ssid.c_str());
        add_integer(row, "channel", neighbour.channel);
        add_integer(row, "signal", neighbour.signal);
        add_text(row, "encryption", neighbour.encryption.c_str());
        json_array_append_new(rows.get(), row.release());
    }
    json_object_set_new(message.get(), "neighborInfo", rows.release());
}

static void process_scan_result(const scan_reply &reply)
{
    const char *band = scanned_band;
    if (!reply.channels.empty())
        band = reply.channels[0].channel < FIRST_5GHZ_CHANNEL ? BAND_2_4GHZ : BAND_5GHZ;
    json_ptr message = new_message(MSG_RADIO_SCAN_RSP);
    add_text(message, "status", "Complete");
    add_text(message, "band", band);
    add_channels(message, reply);
    add_neighbours(message, reply);
    malloc_text text = dump_message(message, "process_scan_result");
    if (!text)
        return;
    if (orv_radio_scan == 1)
        (void)queue_text(text);
    else
        (void)write_to_fcgi(text.get(), strlen(text.get()));
}

/* ---- the reply ---- */

/* As much of the reply as there will ever be has come. */
static void handle_reply(void)
{
    LOG(LOG_EVENT, "Got scan result of size %d", static_cast<int>(pieces.size()));
    scan_reply reply;
    int result = parse_scan_reply(pieces.data(), pieces.size(), &reply);
    end_scan();
    if (result != 0) {
        LOG(LOG_FAILURE, "Scan result is incomplete");
        send_scan_failure_msg("Incomplete scan result from the Wi-Fi daemon");
    } else if (reply.type == SCAN_RESULT) {
        process_scan_result(reply);
    } else if (reply.type == SCAN_FAILED) {
        send_scan_failure_msg(reply.failure.c_str());
    } else {
        LOG(LOG_NOTABLE, "Ignoring scan result of type %u", reply.type);
    }
}

static void pieces_late(void *)
{
    timer_fired(pieces_timer);
    handle_reply();
}

void scan_result_cb(int32_t fd, int32_t, void *)
{
    if (pieces.empty())
        LOG(LOG_EVENT, "Got scan result");
    char piece[SCAN_READ_SIZE];
    ssize_t length = recv(fd, piece, sizeof(piece), MSG_DONTWAIT);
    if (length < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (length < 0) {
        LOG(LOG_FAILURE, "Failed to receive scan results");
        end_scan();
        send_scan_failure_msg("Failed to receive scan results");
        return;
    }
    pieces.append(piece, static_cast<size_t>(length));
    if (length == 0 || scan_reply_complete(pieces.data(), pieces.size()))
        handle_reply();
    else if (!pieces_timer.handle)
        timer_arm(pieces_timer, SCAN_PIECES_LIMIT);
}

/* ---- the request ---- */

/* The first SKU of the variants that have a band, and the last. */
struct band_row {
    const char *band;
    int first_sku, last_sku;
};

static const band_row bands[] = {
    {BAND_5GHZ, 0, 2},
    {BAND_2_4GHZ, 3, 5},
};

static const band_row *find_band(const char *band)
{
    for (const band_row &row : bands)
        if (strcmp(row.band, band) == 0)
            return &row;
    return nullptr;
}

/* Connects to the daemon and watches the connection. Returns 0 or -1; scan_fd is the connection. */
static int open_daemon(void)
{
    scan_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (scan_fd < 0)
        return -1;
    struct sockaddr_un address;
    if (local_address(SCAN_SOCKET, &address) == 0) /* a connection that fails takes no request */
        (void)connect(scan_fd, reinterpret_cast<const struct sockaddr *>(&address), sizeof(address));
    return ev_add_fd(scan_fd, EV_READ, scan_result_cb, nullptr);
}

int platform_start_radio_scan(const char *band, int32_t mode)
{
    static const char request[SCAN_REQUEST_SIZE] = {};
    int sku = get_sku();
    const band_row *wanted = find_band(band);
    orv_radio_scan = mode;
    if (!wanted || sku < wanted->first_sku || sku > wanted->last_sku) {
        send_scan_failure_msg("Device does not support scanning requested band");
        return -1;
    }
    if (open_daemon() != 0) {
        LOG(LOG_FAILURE, "Failed to open socket for scanning %s", strerror(errno));
        end_scan();
        send_scan_failure_msg("Failed to open socket for scanning");
        return -1;
    }
    if (send(scan_fd, request, sizeof(request), MSG_NOSIGNAL) != SCAN_REQUEST_SIZE) {
        LOG(LOG_FAILURE, "Failed to send start scan message");
        end_scan();
        send_scan_failure_msg("Failed to send start scan message");
        return 0;
    }
    scan_in_progress = 1;
    scanned_band = wanted->band;
    timer_arm(scan_timer, SCAN_LIMIT);
    LOG(LOG_EVENT, "Sent start scan message");
    return 0;
}

int parse_radio_scan_request(const json_t *request, char *error_text, int32_t mode)
{
    if (!request) {
        set_error_text(error_text, "jobj is NULL, ideally this should never happen");
        LOG(LOG_FAILURE, "%s", error_text);
        return INTERNAL_ERROR;
    }
    const char *band = json_string_value(json_object_get(request, "band"));
    if (!band)
        return NO_ERROR;
    LOG(LOG_EVENT, "Got request to scan band : %s ", band);
    if (!find_band(band)) {
        set_error_text(error_text, "Invalid band specified");
        return INVALID_INPUT;
    }
    if (scan_in_progress) {
        set_error_text(error_text, "Radio scan already in progress, please wait");
        return BAD_REQUEST;
    }
    (void)platform_start_radio_scan(band, mode);
    return NO_ERROR;
}

void radio_scan_reset(void) { end_scan(); }
