/*
 * What the platform makes of the names in a statistics request, and its chance to prepare counters. On this
 * platform names stay texts and the statistics daemon collects; another one fills in its own. All return 0,
 * or another value for a name that it does not know.
 */
#pragma once

#include <cstdint>

enum {
    FLD_NAME_SIZE = 16,  /* a field's name, longer ones are cut */
    TBL_NAME_SIZE = 128, /* a table's name, longer ones are cut */
};

struct fld_entry {
    char name[FLD_NAME_SIZE];
};

/* A field of the device as a whole. */
int platform_set_fld_index(fld_entry *entry, const char *name);

/* A table; percent signs in its name are interpreted, see agent/text.h. */
int platform_set_tbl_name(char (&entry)[TBL_NAME_SIZE], const char *name);

/* A column of a table: the entry stays empty here, the daemon reports whole tables. */
int platform_map_table_field_to_index(fld_entry *entry, const char *name, const char *table);

/* Called before each report is asked for; a negative result costs the report. */
int platform_get_stats(void);
