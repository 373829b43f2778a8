/*
 * Manufacturers by MAC address. A maker's build links its own library of this name, with C linkage.
 *
 * Here the names come from the IEEE registry as the distribution packages it (ieee-data).
 */
#pragma once

/* The registry's four lists: blocks of 24, 28 and 36 bits, and the older individual blocks of 36. */
#define REGISTRY_FOLDER "/usr/share/ieee-data/"

extern "C" {

/* The manufacturer of a MAC address, six bytes; "Unknown" when there is none. Valid until the next call. */
const char *mac2name(const unsigned char *mac);
}
