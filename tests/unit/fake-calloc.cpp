#include "tests/unit/fake-calloc.h"

#include <cstddef>

int callocs_left = -1;

extern "C" void *__real_calloc(size_t count, size_t size);
extern "C" void *__wrap_calloc(size_t count, size_t size);

extern "C" void *__wrap_calloc(size_t count, size_t size)
{
    if (callocs_left == 0)
        return nullptr;
    if (callocs_left > 0)
        callocs_left--;
    return __real_calloc(count, size);
}
