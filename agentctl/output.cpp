#include "agentctl/output.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "agent/owners.h"
#include "agent/text.h"

std::string printable(const std::string &text)
{
    std::string clean = valid_utf8(text.data(), text.size());
    std::string shown;
    for (size_t i = 0; i < clean.size(); i++) {
        unsigned char byte = static_cast<unsigned char>(clean[i]);
        bool second_control = byte == 0xC2 && i + 1 < clean.size() &&
                              static_cast<unsigned char>(clean[i + 1]) < 0xA0; /* U+0080 to U+009F */
        if (second_control)
            i++;
        bool control = (byte < 0x20 && byte != '\n' && byte != '\t') || byte == 0x7F || second_control;
        shown += control ? '?' : clean[i];
    }
    return shown;
}

std::string printable_line(const std::string &text)
{
    std::string shown = printable(text);
    std::replace_if(
        shown.begin(), shown.end(), [](char c) { return c == '\n' || c == '\t'; }, ' ');
    return shown;
}

void print_field(const char *name, const std::string &text)
{
    std::string label = std::string(name) + ":";
    printf("%-16s%s\n", label.c_str(), printable_line(text).c_str());
}

void print_json(const json_t *value)
{
    malloc_text text(json_dumps(value, JSON_INDENT(2)));
    printf("%s\n", text ? text.get() : "null");
}

std::string duration_text(int64_t seconds)
{
    static const struct {
        int64_t length;
        const char *name;
    } units[] = {{86400, "day"}, {3600, "hour"}, {60, "minute"}, {1, "second"}};
    for (const auto &unit : units)
        if (seconds >= unit.length || unit.length == 1) {
            int64_t count = seconds / unit.length;
            return std::to_string(count) + " " + unit.name + (count == 1 ? "" : "s");
        }
    return "";
}

std::string time_text(int64_t when, int64_t now)
{
    time_t seconds = static_cast<time_t>(when);
    struct tm parts;
    char stamp[40] = "?";
    if (localtime_r(&seconds, &parts))
        strftime(stamp, sizeof(stamp), "%F %H:%M:%S", &parts);
    if (when <= now)
        return std::string(stamp) + " (" + duration_text(now - when) + " ago)";
    return std::string(stamp) + " (in " + duration_text(when - now) + ")";
}

void complain(const char *format, ...)
{
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    fflush(stdout);
    fprintf(stderr, "agentctl: %s\n", printable(text).c_str());
}
