#include "platform/sku.h"

#include <cstring>

/*
 * The first row that fits counts. "Strata SD" is sold as a "Strata SC": it has a model code and a hardware
 * version of its own, but not a product name.
 */
/* clang-format off */
static const sku_entry sku_table[] = {
    /* SKU, device model begins with, product name, model, type, hardware version */
    {6,  "",          "Strata SA", "SA", "Quill", "6"},
    {7,  "Strata SD", "Strata SC", "SD", "Quill", "9"},
    {7,  "",          "Strata SC", "SC", "Quill", "7"},
    {8,  "",          "Strata SE", "SE", "Quill", "8"},
    {10, "",          "Strata SB", "SB", "Moss",  "10"},
    {11, "",          "Strata SF", "SF", "Moss",  "11"},
};
/* clang-format on */

static const sku_entry any_other = {0, "", "Vireo Lattice", "Lattice", "Heron", nullptr};

const sku_entry &find_sku(int sku, const char *device_model)
{
    if (!device_model) /* a maker's library may have none */
        device_model = "";
    for (const sku_entry &row : sku_table)
        if (row.sku == sku && strncmp(device_model, row.model_start, strlen(row.model_start)) == 0)
            return row;
    return any_other;
}
