/*
 * The verbs and their help texts, one table.
 */
#pragma once

struct verb_row {
    const char *name;
    int (*run)(int argc, char **argv);
    const char *usage; /* what follows "agentctl " */
    const char *does;  /* in half a line */
    const char *help;  /* the rest of --help */
};

/* The verb of this name, or null. */
const verb_row *find_verb(const char *name);

/* All of agentctl, on standard output. */
void print_help(void);
void print_verb_help(const verb_row &verb);

/* Tells what is wrong with a verb's arguments (`word` follows the complaint) and returns EXIT_USAGE. */
int usage_error(const char *verb, const char *complaint, const char *word = "");
