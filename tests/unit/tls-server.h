/*
 * A TLS server of one test: serves one connection after another in a thread of its own, as a script says.
 */
#pragma once

#include <atomic>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include "tests/unit/certificates.h"

/* What a script may do with the connection that it serves; the request has been read. */
struct tls_peer {
    SSL *ssl;
    int fd;
};

using tls_script = std::function<void(tls_peer &peer)>;

/* Everything that is sent at once arrives at once, in one TLS record. */
inline void tls_send(tls_peer &peer, const std::string &text)
{
    SSL_write(peer.ssl, text.data(), static_cast<int>(text.size()));
}

/* Every byte is a record of its own; all of them arrive together. */
inline void tls_send_bytewise(tls_peer &peer, const std::string &text)
{
    int cork = 1;
    setsockopt(peer.fd, IPPROTO_TCP, TCP_CORK, &cork, sizeof(cork));
    for (char c : text)
        SSL_write(peer.ssl, &c, 1);
    cork = 0;
    setsockopt(peer.fd, IPPROTO_TCP, TCP_CORK, &cork, sizeof(cork));
}

struct tls_server {
    int listener = -1;
    int port = 0;
    ssl_ctx_ptr context;
    tls_script script;
    std::atomic<bool> stopping{false};
    std::atomic<int> handshakes{0};        /* finished ones */
    std::vector<std::string> requests;     /* to be read after stop() */
    std::vector<std::string> server_names; /* what the clients asked for, likewise */
    std::thread thread;

    tls_server(const identity &who, tls_script what, int wanted_port = 0);
    ~tls_server() { stop(); }
    void stop();
};

/* Binds to the wanted port, or to a free one of four digits. */
inline int tls_listen(int wanted_port, int *bound_port)
{
    for (int port = wanted_port ? wanted_port : 4000; port < 10000; port++) {
        int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        int on = 1;
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
        struct sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (bind(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof(address)) == 0 &&
            listen(fd, 5) == 0) {
            *bound_port = port;
            return fd;
        }
        close(fd);
        if (wanted_port)
            break;
    }
    throw std::runtime_error("no port to listen on");
}

/* The request up to its end, CR LF LF; what has come so far when the client stops. */
inline std::string tls_read_request(SSL *ssl)
{
    std::string text;
    char piece[512];
    while (text.size() < 4 || text.compare(text.size() - 3, 3, "\r\n\n") != 0) {
        int count = SSL_read(ssl, piece, sizeof(piece));
        if (count <= 0)
            break;
        text.append(piece, static_cast<size_t>(count));
    }
    return text;
}

inline void tls_serve_one(tls_server *server, int fd)
{
    struct timeval limit = {10, 0}; /* a test that hangs ends here */
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
    int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    ssl_ptr ssl(SSL_new(server->context.get()));
    SSL_set_fd(ssl.get(), fd);
    if (SSL_accept(ssl.get()) == 1) {
        const char *name = SSL_get_servername(ssl.get(), TLSEXT_NAMETYPE_host_name);
        server->server_names.push_back(name ? name : "");
        server->handshakes++;
        std::string request = tls_read_request(ssl.get());
        if (!request.empty()) {
            server->requests.push_back(request);
            tls_peer peer = {ssl.get(), fd};
            server->script(peer);
            SSL_shutdown(ssl.get());
        }
    }
    ERR_clear_error();
}

inline void tls_serve(tls_server *server)
{
    while (!server->stopping) {
        struct pollfd entry = {server->listener, POLLIN, 0};
        if (poll(&entry, 1, 20) <= 0)
            continue;
        fd_guard client(accept4(server->listener, nullptr, nullptr, SOCK_CLOEXEC));
        if (client.fd >= 0)
            tls_serve_one(server, client.fd);
    }
}

inline tls_server::tls_server(const identity &who, tls_script what, int wanted_port)
    : context(SSL_CTX_new(TLS_server_method())), script(std::move(what))
{
    listener = tls_listen(wanted_port, &port);
    SSL_CTX_use_certificate(context.get(), who.certificate.get());
    SSL_CTX_use_PrivateKey(context.get(), who.key.get());
    SSL_CTX_set_num_tickets(context.get(), 0); /* they would end the client's first wait, or not */
    thread = std::thread(tls_serve, this);
}

inline void tls_server::stop()
{
    stopping = true;
    if (thread.joinable())
        thread.join();
    if (listener >= 0)
        close(listener);
    listener = -1;
}
