#include "agentctl/command-request.h"

#include <cstring>

#include "agent/text.h"
#include "agentctl/front-end.h"
#include "agentctl/numbers.h"

enum option_kind { OPTION_NUMBER, OPTION_TEXT, OPTION_FLAG, OPTION_ICMP };

/* An option of a command and the argument of the request that it becomes. */
struct option_row {
    const char *command;
    const char *option;
    const char *argument;
    option_kind kind;
};

static const option_row options[] = {
    {"ping", "-c", "count", OPTION_NUMBER},
    {"ping", "-s", "size", OPTION_NUMBER},
    {"ping", "-t", "ttl", OPTION_NUMBER},
    {"ping", "-v", "verbose", OPTION_FLAG},
    {"traceroute", "-I", "traceMethod", OPTION_ICMP},
    {"traceroute", "-F", "dontFrag", OPTION_FLAG},
    {"traceroute", "-l", "showTtl", OPTION_FLAG},
    {"traceroute", "-v", "verbose", OPTION_FLAG},
    {"tcpdump", "-i", "interface", OPTION_TEXT},
    {"tcpdump", "-c", "count", OPTION_NUMBER},
    {"tcpdump", "-s", "size", OPTION_NUMBER},
    {"tcpdump", "-v", "verbose", OPTION_FLAG},
};

/* A command and what may stand behind its options. */
struct command_row {
    const char *name;
    bool wants_host; /* else a filter of any number of words */
};

static const command_row commands[] = {
    {"ping", true}, {"traceroute", true}, {"nslookup", true}, {"tcpdump", false}};

/* What the agent keeps of a host or a filter, and of any other text. */
enum { HOST_LENGTH = 127, TEXT_LENGTH = 255 };

static const int32_t LONGEST = 86400; /* seconds of a run */
static const int32_t LARGEST = 1000000;

static const command_row *find_command(const char *name)
{
    for (const command_row &row : commands)
        if (strcmp(row.name, name) == 0)
            return &row;
    return nullptr;
}

static const option_row *find_option(const char *command, const char *option)
{
    for (const option_row &row : options)
        if (strcmp(row.command, command) == 0 && strcmp(row.option, option) == 0)
            return &row;
    return nullptr;
}

/* Puts one option into the arguments; `value` is the word behind it, or null. True when it was used up. */
static bool add_option(const option_row &row, const char *value, json_t *arguments, std::string *complaint)
{
    int32_t number = 0;
    switch (row.kind) {
    case OPTION_FLAG: json_object_set_new(arguments, row.argument, json_true()); return false;
    case OPTION_ICMP: json_object_set_new(arguments, row.argument, json_string("icmp")); return false;
    case OPTION_NUMBER:
        if (!value || !whole_number(value, 0, LARGEST, &number))
            *complaint = std::string(row.option) + " wants a number";
        else
            json_object_set_new(arguments, row.argument, json_integer(number));
        return true;
    default:
        if (!value || value[0] == '-' || strlen(value) > TEXT_LENGTH)
            *complaint = std::string(row.option) + " wants a name";
        else
            json_object_set_new(arguments, row.argument, json_string(value));
        return true;
    }
}

/* What stands behind the options: the host, or the words of the filter. */
static void add_rest(const command_row &command, const std::string &rest, int words, json_t *arguments,
                     std::string *complaint)
{
    if (command.wants_host && words != 1)
        *complaint = words == 0 ? std::string(command.name) + " wants a host" : "one host at a time";
    else if (rest.size() > HOST_LENGTH)
        *complaint = command.wants_host ? "the host is too long" : "the filter is longer than 127 characters";
    else if (valid_utf8(rest.data(), rest.size()) != rest)
        *complaint = "that is not UTF-8";
    else if (words > 0)
        json_object_set_new(arguments, command.wants_host ? "host" : "filter", json_string(rest.c_str()));
}

/* Everything behind the command's name. */
static void add_words(const command_row &command, int argc, char **argv, json_t *arguments,
                      std::string *complaint)
{
    std::string rest;
    int words = 0;
    for (int i = 0; i < argc && complaint->empty(); i++) {
        const option_row *option = words == 0 ? find_option(command.name, argv[i]) : nullptr;
        if (option) {
            if (add_option(*option, i + 1 < argc ? argv[i + 1] : nullptr, arguments, complaint))
                i++;
        } else if (argv[i][0] == '-') {
            *complaint = std::string(command.name) + " has no option " + argv[i] + " here";
        } else {
            rest += (words++ ? " " : "") + std::string(argv[i]);
        }
    }
    if (complaint->empty())
        add_rest(command, rest, words, arguments, complaint);
}

json_t *command_request(int argc, char **argv, std::string *complaint)
{
    int32_t duration = 0;
    int at = 1;
    if (at < argc && strcmp(argv[at], "-d") == 0) {
        if (at + 1 >= argc || !whole_number(argv[at + 1], 1, LONGEST, &duration)) {
            *complaint = "-d wants a number of seconds";
            return nullptr;
        }
        at += 2;
    }
    const command_row *command = at < argc ? find_command(argv[at]) : nullptr;
    if (!command) {
        *complaint = at < argc ? std::string("there is no command ") + argv[at] : "a command is missing";
        return nullptr;
    }
    json_t *arguments = json_object();
    json_ptr request(json_pack("{s:i, s:s, s:o}", "msgType", FRONT_END_RUN, "command", command->name,
                               "arguments", arguments));
    if (duration != 0)
        json_object_set_new(request.get(), "duration", json_integer(duration));
    add_words(*command, argc - at - 1, argv + at + 1, arguments, complaint);
    return complaint->empty() ? request.release() : nullptr;
}
