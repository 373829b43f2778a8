#include "operations/exec-arguments.h"

#include <cstring>
#include <string>

#include "agent/debug-log.h"
#include "agent/text.h"

#define MODULE "exec-cmd.c"

exec_command exec_cmd;
char tcpdump_filter[EXEC_FILTER_SIZE];

void clear_exec_command(void) { exec_cmd = {}; }

/* ---- what an argument becomes ---- */

template <size_t size> static void take_text(char (&out)[size], const char *key, const std::string &text)
{
    size_t length = utf8_border(text, size - 1);
    memcpy(out, text.data(), length);
    out[length] = '\0';
    if (length < text.size())
        LOG(LOG_FAILURE, "Argument %s is longer than %zu bytes, cut off: %s", key, size - 1,
            text.c_str() + length);
}

/* An option with its value, or alone. Both or none: an option would take the next entry for its value. */
static void add_option(const char *key, const char *option, const std::string *value)
{
    int32_t wanted = value ? 2 : 1;
    if (exec_cmd.argc + wanted > EXEC_ENTRIES) {
        LOG(LOG_FAILURE, "Too many arguments, left out %s: %s %s", key, option, value ? value->c_str() : "");
        return;
    }
    take_text(exec_cmd.argv[exec_cmd.argc++], key, option);
    if (value)
        take_text(exec_cmd.argv[exec_cmd.argc++], key, *value);
}

static void take_option(const char *key, const char *option, const json_t *given)
{
    if (json_is_integer(given)) {
        const std::string number = std::to_string(clamp_to_int32(json_integer_value(given)));
        add_option(key, option, &number);
    } else if (json_is_string(given)) {
        const std::string text = json_string_value(given);
        add_option(key, option, &text);
    } else if (json_is_true(given)) {
        add_option(key, option, nullptr);
    }
}

static void take_method(const char *key, const char *option, const json_t *given)
{
    if (json_is_string(given) && strncmp(json_string_value(given), "icmp", 4) == 0)
        add_option(key, option, nullptr);
}

static void take_host(const char *key, const char *, const json_t *given)
{
    if (json_is_string(given))
        take_text(exec_cmd.host, key, json_string_value(given));
}

static void take_filter(const char *key, const char *, const json_t *given)
{
    if (json_is_string(given))
        take_text(tcpdump_filter, key, json_string_value(given));
}

/* ---- the table ---- */

static const struct {
    const char *key; /* an argument whose name begins so is meant */
    const char *option;
    void (*take)(const char *key, const char *option, const json_t *given);
} table[] = {
    {"host", nullptr, take_host},     {"count", "-c", take_option},    {"size", "-s", take_option},
    {"ttl", "-t", take_option},       {"dontFrag", "-F", take_option}, {"traceMethod", "-I", take_method},
    {"showTtl", "-l", take_option},   {"verbose", "-v", take_option},  {"interface", "-i", take_option},
    {"filter", nullptr, take_filter},
};

void read_exec_arguments(const json_t *arguments)
{
    const char *name;
    json_t *given;
    json_object_foreach(const_cast<json_t *>(arguments), name, given)
    {
        for (const auto &row : table)
            if (strncmp(name, row.key, strlen(row.key)) == 0)
                row.take(row.key, row.option, given);
    }
    LOG(LOG_TRACE, "Parsed argv data");
    for (int32_t i = 0; i < exec_cmd.argc; i++)
        LOG(LOG_TRACE, "argv : %s", exec_cmd.argv[i]);
}

/* ---- the vector ---- */

void build_exec_vector(const char *(&vector)[EXEC_VECTOR_SIZE])
{
    int used = 0;
    vector[used++] = exec_cmd.command;
    for (int32_t i = 0; i < exec_cmd.argc; i++)
        vector[used++] = exec_cmd.argv[i];
    if (exec_cmd.host[0])
        vector[used++] = exec_cmd.host;
    if (strcmp(exec_cmd.command, "tcpdump") == 0)
        /* line by line, brief, numeric, numbered */
        for (const char *entry : {"-l", "-q", "-n", "-#", static_cast<const char *>(tcpdump_filter)})
            vector[used++] = entry;
    vector[used] = nullptr;
}
