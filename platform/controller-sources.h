/*
 * The files that name the controller, in the order in which discovery asks them, and what discovery last read
 * there. A source that the last pass asked has a say in which controller the agent is with; a later one has
 * not.
 */
#pragma once

#include <cstddef>
#include <string>

#define STATIC_URL_FILE "/mnt/flash/config/orv_static_url"
#define DHCP_43_FILE "/tmp/orv_dhcp_43_url"
#define DHCP_15_FILE "/tmp/orv_dhcp_15_domain"

enum { URL_TEXT_SIZE = 257 }; /* of a URL, 256 characters are read */

enum controller_source {
    SOURCE_STATIC_URL,
    SOURCE_DHCP_43,
    SOURCE_DHCP_15,
    CONTROLLER_SOURCES, /* how many there are */
};

struct controller_source_row {
    const char *name; /* for people */
    const char *path;
    size_t length; /* as many bytes are read */
};

extern const controller_source_row controller_sources[CONTROLLER_SOURCES];

/* What a source says now: the value, empty when there is none. */
std::string controller_source_text(controller_source source);

/* The same for discovery, remembered as its answer; what later sources said is forgotten. */
std::string consult_controller_source(controller_source source);

/* Forgets what this source and later ones said: they have no say until they are asked again. */
void forget_controller_sources(controller_source first);

/* True when a source has a say and told discovery something else than this. */
bool told_otherwise(controller_source source, const std::string &text);
