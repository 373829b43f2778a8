/*
 * The hardware variants: what this device is called, by its SKU number.
 */
#pragma once

struct sku_entry {
    int sku;
    const char *model_start; /* the row holds for device models that begin so; empty: for all */
    const char *product_name;
    const char *model;
    const char *type;
    const char *hw_version; /* null: the SKU in decimal */
};

/* The row of a variant. Every SKU has one: those that are not listed share the last. */
const sku_entry &find_sku(int sku, const char *device_model);
