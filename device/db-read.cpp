#include "device/db-read.h"

#include <cstring>

#include "device/tavosutils.h"
#include "device/watched-json.h"

static watched_json db = {DB_FILE, {}, nullptr, 0};

char *db_read(const char *key)
{
    const char *value = json_string_value(json_object_get(watched_json_get(&db), key));
    return value ? strdup(value) : nullptr;
}

unsigned int db_times_read(void) { return db.times_read; }
