/*
 * Where the controller's address comes from, by the rules of discovery: the same files, the same checks, the
 * same order.
 */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

enum source_state {
    SOURCE_IS_ABSENT,      /* says nothing: the next one is asked */
    SOURCE_IS_INVALID,     /* says what is no URL */
    SOURCE_IS_PASSED_OVER, /* the static URL names the cloud, whose turn comes anyway */
    SOURCE_IS_CANDIDATE,   /* names a host to ask */
};

struct address_source {
    const char *name;  /* "static URL", "DHCP option 43", "DHCP option 15", "default cloud" */
    const char *place; /* the file it comes from, or what else says it */
    source_state state;
    std::string url;  /* as discovery has it when it asks */
    std::string host; /* of a candidate */
    int32_t port;
    bool final; /* the agent asks no later source, whatever comes of this one */
};

/* All four, in the order in which discovery asks them. See use_static_url(). */
std::vector<address_source> read_address_sources(void);

/* The agent's -s wins over the static URL file: takes it over from the running one. Empty for none. */
void use_static_url(const std::string &url);

enum certificate_rule {
    CERTIFICATE_CHECKED,
    CERTIFICATE_ON_PREMISES, /* not checked: the URL is not the cloud's */
    CERTIFICATE_ALLOW_ALL,   /* not checked: the marker file says so */
};

/* Whether the agent checks the certificate of a server whose URL this is; its check then goes by this URL. */
certificate_rule certificate_rule_for(const std::string &url);

/* "checked", "not checked (on premises)" and so on. */
const char *certificate_rule_text(certificate_rule rule);
