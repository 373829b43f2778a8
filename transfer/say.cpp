#include "transfer/say.h"

#include <cstdarg>
#include <cstdio>

#include <poll.h>
#include <unistd.h>

#include "agent/text.h"

/* The C1 controls, which a terminal obeys too, are two bytes in UTF-8: C2, then 80 to 9F. */
static bool is_c1_control(const std::string &text, size_t at)
{
    auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    return byte(at) == 0xC2 && at + 1 < text.size() && byte(at + 1) <= 0x9F;
}

std::string presentable(const std::string &text, size_t limit)
{
    std::string valid = valid_utf8(text.data(), text.size());
    std::string shown;
    for (size_t at = 0; at < valid.size(); at++) {
        auto byte = static_cast<unsigned char>(valid[at]);
        if (is_c1_control(valid, at)) {
            shown += '?';
            at++;
        } else {
            shown += byte < 0x20 || byte == 0x7F ? '?' : valid[at];
        }
    }
    shown.resize(utf8_border(shown, limit));
    return shown;
}

void say(const char *format, ...)
{
    char text[2048];
    va_list arguments;
    va_start(arguments, format);
    (void)vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    std::string line = presentable(text, LINE_LIMIT - 1) + "\n";
    struct pollfd wanted = {STDOUT_FILENO, POLLOUT, 0};
    if (poll(&wanted, 1, 0) == 1)
        (void)!write(STDOUT_FILENO, line.data(), line.size());
}
