#include "agentctl/numbers.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>

bool whole_number(const char *word, int32_t least, int32_t most, int32_t *number)
{
    if (!isdigit(static_cast<unsigned char>(word[0])))
        return false;
    char *end = nullptr;
    errno = 0;
    long value = strtol(word, &end, 10);
    if (errno != 0 || *end != '\0' || value < least || value > most)
        return false;
    *number = static_cast<int32_t>(value);
    return true;
}
