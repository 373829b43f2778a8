#include "platform/controller-sources.h"

#include "agent/utils.h"

enum {
    URL_LENGTH = URL_TEXT_SIZE - 1,
    DOMAIN_LENGTH = 128,
};

const controller_source_row controller_sources[CONTROLLER_SOURCES] = {
    {"static URL", STATIC_URL_FILE, URL_LENGTH},
    {"DHCP option 43", DHCP_43_FILE, URL_LENGTH},
    {"DHCP option 15", DHCP_15_FILE, DOMAIN_LENGTH},
};

struct answer {
    bool asked;
    std::string text;
};

static answer answers[CONTROLLER_SOURCES];

std::string controller_source_text(controller_source source)
{
    char text[URL_TEXT_SIZE];
    (void)read_value_file(controller_sources[source].path, text, controller_sources[source].length);
    return text;
}

std::string consult_controller_source(controller_source source)
{
    forget_controller_sources(source);
    answers[source] = {true, controller_source_text(source)};
    return answers[source].text;
}

void forget_controller_sources(controller_source first)
{
    for (size_t i = first; i < CONTROLLER_SOURCES; i++)
        answers[i] = {};
}

bool told_otherwise(controller_source source, const std::string &text)
{
    return answers[source].asked && answers[source].text != text;
}
