#include "agent/text.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

/* ---- format texts from outside ---- */

static bool is_any_of(char c, const char *set) { return c != '\0' && strchr(set, c); }

/* Steps over flags, width, precision and length of a conversion; returns where its letter is. */
static const char *conversion_letter(const char *at)
{
    while (is_any_of(*at, "-+ #0'I123456789.*$hlqjzZtL"))
        at++;
    return at;
}

void expand_format_text(char *out, size_t size, const char *text)
{
    std::string result;
    for (const char *at = text ? text : ""; *at; at++) {
        if (*at != '%') {
            result += *at;
            continue;
        }
        const char *letter = conversion_letter(at + 1);
        if (*letter == '%')
            result += '%';
        else if (is_any_of(*letter, "diouxXfFeEgGaAp"))
            result += '0';
        bool is_conversion =
            *letter == '%' || (*letter >= 'A' && *letter <= 'Z') || (*letter >= 'a' && *letter <= 'z');
        at = is_conversion ? letter : letter - 1; /* what is no conversion letter stands for itself */
    }
    snprintf(out, size, "%s", result.c_str());
}

/* ---- numbers ---- */

int32_t clamp_to_int32(int64_t value)
{
    return static_cast<int32_t>(std::clamp<int64_t>(value, INT32_MIN, INT32_MAX));
}

int32_t text_to_int(const char *text) { return clamp_to_int32(strtoll(text, nullptr, 10)); }

/* ---- UTF-8, RFC 3629 ---- */

/* The length of the well-formed sequence at `at`, 0 when there is none. */
static size_t utf8_sequence(const unsigned char *at, size_t left)
{
    /* first byte from, to; length; second byte from, to */
    static const struct {
        unsigned char first, last;
        size_t length;
        unsigned char second_first, second_last;
    } forms[] = {
        {0x01, 0x7F, 1, 0, 0},       {0xC2, 0xDF, 2, 0x80, 0xBF}, {0xE0, 0xE0, 3, 0xA0, 0xBF},
        {0xE1, 0xEC, 3, 0x80, 0xBF}, {0xED, 0xED, 3, 0x80, 0x9F}, {0xEE, 0xEF, 3, 0x80, 0xBF},
        {0xF0, 0xF0, 4, 0x90, 0xBF}, {0xF1, 0xF3, 4, 0x80, 0xBF}, {0xF4, 0xF4, 4, 0x80, 0x8F},
    };
    for (const auto &form : forms) {
        if (at[0] < form.first || at[0] > form.last)
            continue;
        if (left < form.length)
            return 0;
        if (form.length > 1 && (at[1] < form.second_first || at[1] > form.second_last))
            return 0;
        for (size_t i = 2; i < form.length; i++)
            if ((at[i] & 0xC0) != 0x80)
                return 0;
        return form.length;
    }
    return 0;
}

std::string valid_utf8(const char *bytes, size_t length)
{
    std::string result;
    const auto *at = reinterpret_cast<const unsigned char *>(bytes);
    for (size_t left = length; left > 0;) {
        size_t step = utf8_sequence(at, left);
        if (step > 0) {
            result.append(reinterpret_cast<const char *>(at), step);
        } else {
            result += "\xEF\xBF\xBD";
            step = 1;
        }
        at += step;
        left -= step;
    }
    return result;
}

size_t utf8_border(const std::string &text, size_t limit)
{
    if (text.size() <= limit)
        return text.size();
    while (limit > 0 && (static_cast<unsigned char>(text[limit]) & 0xC0) == 0x80)
        limit--;
    return limit;
}

size_t utf8_whole(const char *bytes, size_t length)
{
    /* What follows a first byte is at most three bytes long. */
    for (size_t back = 1; back <= 3 && back <= length; back++) {
        auto byte = static_cast<unsigned char>(bytes[length - back]);
        if ((byte & 0xC0) == 0x80)
            continue;
        size_t wanted = byte < 0xC2 || byte > 0xF4 ? 1 : byte < 0xE0 ? 2 : byte < 0xF0 ? 3 : 4;
        return wanted > back ? length - back : length;
    }
    return length;
}

/* ---- in place ---- */

void str_replace_char(char *text, char from, char to)
{
    for (char *at = text; at && *at; at++)
        if (*at == from)
            *at = to;
}

void str_remove_char(char *text, char ch)
{
    if (!text)
        return;
    char *kept = text;
    for (const char *at = text; *at; at++)
        if (*at != ch)
            *kept++ = *at;
    *kept = '\0';
}
