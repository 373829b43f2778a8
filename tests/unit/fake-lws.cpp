#include "tests/unit/fake-lws.h"

#include <cstdio>
#include <cstring>
#include <memory>

#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

struct lws_context {
    lws_callback_function *callback;
    bool destroyed;
};

struct lws {
    lws_context *context;
    int fd;
    bool alive;
    bool established;
    bool wants_writable;
    bool in_writable_callback;
    bool has_close_reason;
    bool close_frame_sent;
    bool going_down; /* it was told to end; a second word ends it at once */
    std::string close_payload;
};

fake_library library;

static std::vector<std::unique_ptr<lws>> handles;
static std::vector<std::unique_ptr<lws_context>> contexts;

void fake_lws_reset(void)
{
    for (auto &handle : handles)
        if (handle->alive)
            close(handle->fd);
    handles.clear();
    contexts.clear();
    library = fake_library();
}

lws *fake_handle(void) { return !handles.empty() && handles.back()->alive ? handles.back().get() : nullptr; }

int fake_live_handles(void)
{
    int count = 0;
    for (auto &handle : handles)
        count += handle->alive ? 1 : 0;
    return count;
}

int fake_descriptor(const lws *wsi) { return wsi->fd; }

bool fake_is_established(const lws *wsi) { return wsi->established; }

bool fake_is_closing(const lws *wsi) { return wsi->close_frame_sent; }

static void close_descriptor(int fd)
{
    EXPECT_EQ(close(fd), 0) << "somebody else closed a descriptor that the library holds";
}

/* ---- reports ---- */

int fake_report(lws *wsi, enum lws_callback_reasons reason, const void *in, size_t len)
{
    if (!wsi) {
        ADD_FAILURE() << "there is no connection to report about";
        return 0;
    }
    std::string bytes(static_cast<const char *>(in ? in : ""),
                      in ? len : 0); /* a copy: the library's own buffer */
    return wsi->context->callback(wsi, reason, nullptr, bytes.data(), len);
}

void fake_established(lws *wsi)
{
    if (wsi)
        wsi->established = true;
    fake_report(wsi, LWS_CALLBACK_CLIENT_ESTABLISHED);
}

static void end_handle(lws *wsi, enum lws_callback_reasons verdict)
{
    if (!wsi || !wsi->alive)
        return;
    wsi->alive = false;
    if (library.swallows_closures) {
        close_descriptor(wsi->fd);
        return;
    }
    fake_report(wsi, verdict);
    fake_report(wsi, LWS_CALLBACK_WSI_DESTROY);
    close_descriptor(wsi->fd);
}

void fake_closed(lws *wsi) { end_handle(wsi, LWS_CALLBACK_CLIENT_CLOSED); }

void fake_refused(lws *wsi) { end_handle(wsi, LWS_CALLBACK_CLIENT_CONNECTION_ERROR); }

int fake_receive(lws *wsi, const std::string &piece, size_t remaining, bool final)
{
    library.remaining = remaining;
    library.final_fragment = final;
    int result = fake_report(wsi, LWS_CALLBACK_CLIENT_RECEIVE, piece.data(), piece.size());
    if (result != 0) {
        library.drops++;
        fake_closed(wsi);
    }
    return result;
}

void fake_make_readable(lws *wsi)
{
    uint64_t one = 1;
    (void)!write(wsi->fd, &one, sizeof(one));
}

/* ---- the wire ---- */

static void put_on_wire(const std::string &payload, int mode)
{
    library.wire.push_back({payload, mode});
    if (library.echoes)
        fprintf(stderr, "wire %d:%s\n", mode,
                mode == FAKE_CLOSE_FRAME ? payload.substr(2).c_str() : payload.c_str());
}

std::string fake_wire_text(void)
{
    std::string text;
    for (const fake_frame &frame : library.wire)
        text += (text.empty() ? "" : " ") + std::to_string(frame.mode) + ":" + frame.payload;
    return text;
}

static void send_close_frame(lws *wsi)
{
    if (!wsi->has_close_reason || wsi->close_frame_sent)
        return;
    wsi->close_frame_sent = true;
    put_on_wire(wsi->close_payload, FAKE_CLOSE_FRAME);
}

/* ---- what the agent calls ---- */

extern "C" {

lws_context *lws_create_context(const lws_context_creation_info *info)
{
    library.creation = *info;
    library.protocol = info->protocols[0];
    if (info->retry_and_idle_policy)
        library.policy = *info->retry_and_idle_policy;
    EXPECT_EQ(info->protocols[1].name, nullptr) << "the protocol table has no end";
    if (library.refuses_context)
        return nullptr;
    library.contexts_made++;
    contexts.push_back(std::make_unique<lws_context>(lws_context{info->protocols[0].callback, false}));
    if (library.ssl_context)
        info->protocols[0].callback(nullptr, LWS_CALLBACK_OPENSSL_LOAD_EXTRA_CLIENT_VERIFY_CERTS,
                                    library.ssl_context, nullptr, 0);
    return contexts.back().get();
}

void lws_context_destroy(lws_context *context)
{
    library.contexts_destroyed++;
    context->destroyed = true;
    for (auto &handle : handles)
        if (handle->context == context)
            end_handle(handle.get(), handle->established ? LWS_CALLBACK_CLIENT_CLOSED
                                                         : LWS_CALLBACK_CLIENT_CONNECTION_ERROR);
}

lws *lws_client_connect_via_info(const lws_client_connect_info *info)
{
    EXPECT_FALSE(info->context->destroyed) << "connected with a context that is gone";
    library.connects.push_back({info->address, info->host, info->origin, info->path, info->protocol,
                                info->port, info->ietf_version_or_minus_one, info->ssl_connection});
    if (library.refuses_connection && !library.reports_error_in_connect)
        return nullptr;
    int fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    handles.push_back(
        std::make_unique<lws>(lws{info->context, fd, true, false, false, false, false, false, false, ""}));
    lws *wsi = handles.back().get();
    if (info->pwsi)
        *info->pwsi = wsi;
    if (!library.refuses_connection)
        return wsi;
    fake_refused(wsi);
    if (info->pwsi)
        *info->pwsi = nullptr;
    return nullptr;
}

lws_sockfd_type lws_get_socket_fd(lws *wsi) { return wsi->alive ? wsi->fd : -1; }

int lws_callback_on_writable(lws *wsi)
{
    EXPECT_TRUE(wsi->alive && wsi->established && !wsi->has_close_reason) << "asked for a writable callback";
    library.writable_requests++;
    wsi->wants_writable = true;
    return 1;
}

int lws_write(lws *wsi, unsigned char *buffer, size_t length, enum lws_write_protocol mode)
{
    EXPECT_TRUE(wsi->alive && wsi->established && !wsi->has_close_reason) << "wrote on no connection";
    EXPECT_TRUE(wsi->in_writable_callback) << "wrote outside the writable callback";
    int taken = library.takes;
    if (taken >= 0 && static_cast<size_t>(taken) < length)
        return taken;
    if (taken < 0)
        return taken;
    memset(buffer - LWS_PRE, 0xEE, LWS_PRE); /* the library's own room */
    put_on_wire(std::string(reinterpret_cast<char *>(buffer), length), mode);
    return static_cast<int>(length);
}

void lws_close_reason(lws *wsi, enum lws_close_status status, unsigned char *reason, size_t length)
{
    EXPECT_TRUE(wsi->alive && wsi->established && !wsi->has_close_reason) << "closed what is not open";
    EXPECT_LE(length, 123u) << "a control frame holds 125 bytes";
    wsi->has_close_reason = true;
    wsi->close_payload = {static_cast<char>(status >> 8), static_cast<char>(status & 0xFF)};
    wsi->close_payload.append(reinterpret_cast<char *>(reason), length);
}

void lws_set_timeout(lws *wsi, enum pending_timeout, int seconds)
{
    EXPECT_EQ(seconds, LWS_TO_KILL_SYNC);
    EXPECT_TRUE(wsi->alive) << "killed a dead handle";
    library.kills++;
    if (wsi->has_close_reason && !wsi->going_down) {
        wsi->going_down = true;
        return; /* the frame goes first, with the next service; the closure follows the peer's answer */
    }
    end_handle(wsi, wsi->established ? LWS_CALLBACK_CLIENT_CLOSED : LWS_CALLBACK_CLIENT_CONNECTION_ERROR);
}

/*
 * Behind a close frame the library goes on reporting writable, and would send what it is given: that is for
 * the agent to leave alone.
 */
static void serve_writable(lws *wsi)
{
    if (!wsi->alive || !(wsi->wants_writable || wsi->close_frame_sent))
        return;
    wsi->wants_writable = false;
    wsi->in_writable_callback = true;
    int result = fake_report(wsi, LWS_CALLBACK_CLIENT_WRITEABLE);
    wsi->in_writable_callback = false;
    if (result == 0)
        return;
    library.drops++;
    wsi->going_down = true;
    send_close_frame(wsi);
    if (!wsi->has_close_reason)
        fake_closed(wsi);
}

int lws_service(lws_context *context, int timeout_ms)
{
    EXPECT_FALSE(context->destroyed) << "served a context that is gone";
    EXPECT_EQ(timeout_ms, -1) << "the library would wait";
    library.services++;
    if (!library.script.empty()) {
        std::function<void()> act = library.script.front();
        library.script.pop_front();
        act();
    }
    for (size_t i = 0; i < handles.size(); i++) {
        if (handles[i]->alive)
            send_close_frame(handles[i].get());
        serve_writable(handles[i].get());
    }
    return 0;
}

int lws_service_adjust_timeout(lws_context *context, int timeout_ms, int)
{
    EXPECT_FALSE(context->destroyed) << "asked a context that is gone";
    if (library.hidden_services <= 0)
        return timeout_ms;
    library.hidden_services--;
    return 0;
}

size_t lws_remaining_packet_payload(lws *) { return library.remaining; }

int lws_is_final_fragment(lws *) { return library.final_fragment ? 1 : 0; }

unsigned int lws_http_client_http_response(lws *) { return library.response; }

int lws_hdr_copy(lws *, char *out, int length, enum lws_token_indexes header)
{
    EXPECT_EQ(header, WSI_TOKEN_HTTP);
    return snprintf(out, static_cast<size_t>(length), "%s", library.status_text.c_str());
}

void lws_set_log_level(int level, void (*)(int, const char *)) { library.log_mask = level; }
}
