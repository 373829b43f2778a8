#include "tests/unit/fake-tools.h"

#include <cstdarg>

fake_tools tools;

/* int safe_system_run(const char *path, ...) */
extern "C" int __real__Z15safe_system_runPKcz(const char *path, ...);
extern "C" int __wrap__Z15safe_system_runPKcz(const char *path, ...);

extern "C" int __wrap__Z15safe_system_runPKcz(const char *path, ...)
{
    std::vector<const char *> given;
    va_list arguments;
    va_start(arguments, path);
    while (const char *argument = va_arg(arguments, const char *))
        given.push_back(argument);
    va_end(arguments);

    std::vector<std::string> words = {path};
    words.insert(words.end(), given.begin(), given.end());
    std::string call;
    for (const std::string &word : words)
        call += (call.empty() ? "" : " ") + word;
    tools.ran.push_back(call);

    int status = tools.instead ? tools.instead(words) : RUN_IT_REALLY;
    if (status != RUN_IT_REALLY)
        return status;
    given.resize(2, nullptr); /* no tool here gets more than two */
    return __real__Z15safe_system_runPKcz(path, given[0], given[1], static_cast<char *>(nullptr));
}
