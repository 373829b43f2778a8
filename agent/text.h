/*
 * Texts: bounded copies, numbers, and texts from the network that are treated as format texts.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

/* Copies a text, cut to the array. Null counts as empty. */
template <size_t size> void copy_text(char (&out)[size], const char *text)
{
    snprintf(out, size, "%s", text ? text : "");
}

/*
 * Expands a text from outside that serves as a format text, without arguments and without
 * letting it near printf: "%%" gives "%", any other conversion gives what it would print for an absent
 * argument (numbers "0", texts nothing), "%n" nothing. Writes at most `size` bytes with the NUL.
 */
void expand_format_text(char *out, size_t size, const char *text);

template <size_t size> void copy_format_text(char (&out)[size], const char *text)
{
    expand_format_text(out, size, text);
}

/* An integer from outside, clamped to 32 bits. */
int32_t clamp_to_int32(int64_t value);

/* atoi(3) that saturates instead of running into undefined behaviour. */
int32_t text_to_int(const char *text);

/* A text as valid UTF-8: what is not, NUL included, becomes U+FFFD. JSON texts from outside go through here.
 */
std::string valid_utf8(const char *bytes, size_t length);

/* How many bytes of a valid text fit into `limit` without cutting a character in two. */
size_t utf8_border(const std::string &text, size_t limit);

/* How many of these bytes, in any encoding, end with a whole character: all of them, less one at the end of
 * which more bytes are to come. */
size_t utf8_whole(const char *bytes, size_t length);

/* Every occurrence of byte `from` becomes `to`, in place. A null text is left alone. */
void str_replace_char(char *text, char from, char to);

/* Deletes every occurrence of a byte in place. A null text is left alone. */
void str_remove_char(char *text, char ch);
