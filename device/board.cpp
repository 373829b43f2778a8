#include "device/board.h"

#include <climits>

#include "device/tavosutils.h"
#include "device/watched-json.h"

static watched_json board = {BOARD_FILE, {}, nullptr, 0};

const json_t *board_member(const char *name) { return json_object_get(watched_json_get(&board), name); }

const char *board_text(const char *name) { return json_string_value(board_member(name)); }

int get_sku(void)
{
    json_int_t sku = json_integer_value(board_member("sku"));
    return sku >= 0 && sku <= INT_MAX ? static_cast<int>(sku) : 0;
}

const char *get_device_model(void)
{
    const char *model = board_text("deviceModel");
    return model ? model : "";
}

const char *get_other_version(void)
{
    const char *version = board_text("otherVersion");
    return version ? version : "";
}
