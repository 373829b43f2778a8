#include "platform/stats-names.h"

#include "agent/text.h"

int platform_set_fld_index(fld_entry *entry, const char *name)
{
    copy_text(entry->name, name);
    return 0;
}

int platform_set_tbl_name(char (&entry)[TBL_NAME_SIZE], const char *name)
{
    copy_format_text(entry, name);
    return 0;
}

int platform_map_table_field_to_index(fld_entry *, const char *, const char *) { return 0; }

int platform_get_stats(void) { return 0; }
