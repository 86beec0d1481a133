// Lets operator new fail. It replaces that of the program, so that one source includes this.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <new>

static bool isGranted(std::size_t bytes); // by the test

[[gnu::noinline]] void *operator new(std::size_t bytes)
{
    void *const memory = isGranted(bytes) ? std::malloc(bytes) : nullptr;
    return memory != nullptr ? memory : throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void *memory) noexcept
{
    std::free(memory);
}

[[gnu::noinline]] void operator delete(void *memory, std::size_t) noexcept
{
    std::free(memory);
}
