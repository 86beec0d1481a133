// Records of the kernel in the shared arena, as readers of descriptions make them. All throw std::bad_alloc when there is no
// room.
#pragma once

#include <cstring>
#include <new>
#include <string_view>

#include <tolvin/kernel/kernelvunode.h>
#include <tolvin/performer/pf.h>

namespace tolvin
{

// Room for a record that the kernel initialises.
template<typename Record>
Record *allocateRecord()
{
    void *const arena = pfGetSharedArena();
    void *const block = arena == nullptr ? nullptr : pfMalloc(sizeof(Record), arena);
    if (block == nullptr)
    {
        throw std::bad_alloc();
    }
    return static_cast<Record *>(block);
}

// After the record has its place in a list, which releases it.
inline void requireName(const vunode &node)
{
    if (node.name == nullptr)
    {
        throw std::bad_alloc();
    }
}

inline char *arenaCopyOf(std::string_view text)
{
    auto *const copy = static_cast<char *>(pfMalloc(text.size() + 1, pfGetSharedArena()));
    if (copy == nullptr)
    {
        throw std::bad_alloc();
    }
    std::memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
    return copy;
}

// Appends all nodes of a list to another.
inline void moveNodes(vulist &from, vulist &to)
{
    while (vunode *const node = from.first)
    {
        vunodeRemove(&from, node);
        vunodeAppend(&to, node);
    }
}

} // namespace tolvin
