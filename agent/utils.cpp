#include "agent/utils.h"

#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <openssl/err.h>
#include <openssl/rand.h>
#include <sys/stat.h>

#include "agent/debug-log.h"
#include "agent/ev.h"
#include "agent/owners.h"

#define MODULE "utils.c"

int file_exists(const char *path)
{
    struct stat status;
    if (stat(path, &status) == 0 || errno != ENOENT)
        return 0;
    fprintf(stderr, "File %s  does not exist\n", path);
    return -1;
}

/* The worker of hostname_to_ip: the first IPv4 address, or -1 with the reason logged. */
static int resolve_ipv4(const char *host, char (&address_text)[ADDRESS_TEXT_SIZE])
{
    struct addrinfo hints = {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_CANONNAME;
    struct addrinfo *found = nullptr;
    int error = getaddrinfo(host, nullptr, &hints, &found);
    if (error != 0) {
        LOG(LOG_FAILURE, "getaddrinfo failed with error_code=%d", error);
        return -1;
    }
    addrinfo_ptr results(found);
    for (const struct addrinfo *result = found; result; result = result->ai_next) {
        if (result->ai_family != AF_INET)
            continue;
        struct sockaddr_in address;
        memcpy(&address, result->ai_addr, sizeof(address));
        inet_ntop(AF_INET, &address.sin_addr, address_text, sizeof(address_text));
        const char *name = found->ai_canonname ? found->ai_canonname : "";
        LOG(LOG_TRACE, "IPv%d address: %s (%s)\n", 4, address_text, name);
        return 0;
    }
    LOG(LOG_FAILURE, "No IPv4 address resolved");
    return -1;
}

int hostname_to_ip(const char *host, char (&address_text)[ADDRESS_TEXT_SIZE])
{
    if (resolve_ipv4(host, address_text) == 0)
        return 0;
    LOG(LOG_FAILURE, "Not able to resolve %s", host);
    return -1;
}

uint32_t random_number(uint32_t n)
{
    if (n == 0)
        return 0;
    uint32_t number = 0;
    if (RAND_bytes(reinterpret_cast<unsigned char *>(&number), sizeof(number)) != 1) {
        LOG(LOG_FAILURE, "Rand_bytes failed, error code : %d ", static_cast<int>(ERR_get_error()));
        return 1;
    }
    return number % n;
}

void read_file(FILE *stream, char *buffer, size_t n)
{
    buffer[0] = '\0';
    size_t length = fread(buffer, 1, n, stream);
    if (length == 0)
        return;
    if (buffer[length - 1] == '\n')
        length--;
    buffer[length] = '\0';
}

file_ptr open_plain_file(const char *path)
{
    /* Somebody else's pipe in "/tmp" must not stop the agent: it would wait for a writer for ever. */
    fd_guard fd(open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat status;
    file_ptr file;
    if (fd.fd >= 0 && fstat(fd.fd, &status) == 0 && S_ISREG(status.st_mode))
        file.reset(fdopen(fd.fd, "r"));
    if (file)
        (void)fd.release();
    return file;
}

void close_descriptors_for_child(void)
{
    for (int fd = STDERR_FILENO + 1; fd < EV_FD_LIMIT; fd++)
        (void)close(fd);
}

int read_value_file(const char *path, char *buffer, size_t n)
{
    buffer[0] = '\0';
    file_ptr file = open_plain_file(path);
    if (!file)
        return -1;
    read_file(file.get(), buffer, n);
    return 0;
}
