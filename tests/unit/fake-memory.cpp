#include "tests/unit/fake-memory.h"

#include <cstdint>
#include <cstdlib>
#include <new>

size_t memory_refused_from = SIZE_MAX;

void *operator new(size_t size)
{
    void *memory = size < memory_refused_from ? malloc(size) : nullptr;
    if (!memory)
        throw std::bad_alloc();
    return memory;
}

void operator delete(void *memory) noexcept { free(memory); }
void operator delete(void *memory, size_t) noexcept { free(memory); }
