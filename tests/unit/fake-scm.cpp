#include "tests/unit/fake-scm.h"

#include <cstring>

#include "agent/owners.h"
#include "device/scm.h"

fake_scm scm;

static char *answer(const char *kind, const json_t *value, int overwrite, const std::string &error)
{
    malloc_text text(value ? json_dumps(value, JSON_ENCODE_ANY) : strdup("none"));
    scm.calls.push_back(std::string(kind) + " overwrite=" + std::to_string(overwrite) + " " + text.get());
    if (scm.during)
        scm.during(scm.calls.back());
    return error.empty() ? nullptr : strdup(error.c_str());
}

extern "C" {

char *scm_process_device_json_config(const json_t *config, int overwrite)
{
    return answer("config", config, overwrite, scm.config_error);
}

char *scm_process_device_native_config(const json_t *native_or_null, int overwrite)
{
    return answer("native", native_or_null, overwrite, scm.native_error);
}
}

extern "C" {

int scm_process_config_set_item(const char *name, const char *value)
{
    scm.calls.push_back(std::string("set ") + name + "=" + value);
    return scm.set_result;
}

char *scm_build_msg_no_payload(const char *type) { return strdup(type); }

char *scm_send_and_recv(const char *message)
{
    scm.calls.push_back(std::string("send ") + message);
    return scm.reply.empty() ? nullptr : strdup(scm.reply.c_str());
}

char *scm_parse_action_rsp(const char *) { return strdup("Configuration daemon not available"); }
}
