/*
 * agentctl: for someone logged in to the device.
 */
#include <cstdio>
#include <cstring>

#include "agent/da.h"
#include "agentctl/exit-codes.h"
#include "agentctl/output.h"
#include "agentctl/usage.h"

static bool asks_for_help(const char *word) { return strcmp(word, "--help") == 0 || strcmp(word, "-h") == 0; }

int main(int argc, char **argv)
{
    if (argc < 2) {
        print_help();
        return EXIT_USAGE;
    }
    const char *word = argv[1];
    if (asks_for_help(word)) {
        print_help();
        return EXIT_GOOD;
    }
    if (strcmp(word, "--version") == 0) {
        printf("agentctl %s\n", DA_VERSION);
        return EXIT_GOOD;
    }
    const verb_row *verb = find_verb(word);
    if (!verb) {
        complain("there is no verb \"%s\"", word);
        fprintf(stderr, "Try: agentctl --help\n");
        return EXIT_USAGE;
    }
    if (argc > 2 && asks_for_help(argv[2])) {
        print_verb_help(*verb);
        return EXIT_GOOD;
    }
    return verb->run(argc - 1, argv + 1);
}
