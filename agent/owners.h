/*
 * Owners for what libraries and the system hand out: each alias frees its object when it goes out of scope.
 * Null is always allowed.
 */
#pragma once

#include <cstdio>
#include <cstdlib>
#include <memory>

#include <jansson.h>
#include <netdb.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <unistd.h>

/* Turns a freeing function into a deleter type. */
template <auto function> struct freed_by {
    template <typename T> void operator()(T *object) const { function(object); }
};

/* fclose returns a value that nobody needs where an owner is used; who cares calls fclose on release(). */
inline void close_stream(FILE *stream) { (void)fclose(stream); }

/* json_decref itself is static to each source, which a type must not depend on. */
inline void release_json(json_t *value) { json_decref(value); }

using file_ptr = std::unique_ptr<FILE, freed_by<close_stream>>;
using json_ptr = std::unique_ptr<json_t, freed_by<release_json>>;
using malloc_text = std::unique_ptr<char, freed_by<free>>;
using addrinfo_ptr = std::unique_ptr<struct addrinfo, freed_by<freeaddrinfo>>;
using ssl_ptr = std::unique_ptr<SSL, freed_by<SSL_free>>;
using ssl_ctx_ptr = std::unique_ptr<SSL_CTX, freed_by<SSL_CTX_free>>;
using general_names_ptr = std::unique_ptr<GENERAL_NAMES, freed_by<GENERAL_NAMES_free>>;

/* Closes a plain descriptor when it goes out of scope. -1 is "none". */
struct fd_guard {
    int fd = -1;

    explicit fd_guard(int descriptor) : fd(descriptor) {}
    ~fd_guard()
    {
        if (fd >= 0)
            close(fd);
    }
    fd_guard(const fd_guard &) = delete;
    fd_guard &operator=(const fd_guard &) = delete;

    /* Gives the descriptor up: the caller closes it. */
    int release()
    {
        int given = fd;
        fd = -1;
        return given;
    }
};
