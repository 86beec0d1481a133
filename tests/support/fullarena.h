// Want of room in the shared arena.
#pragma once

#include <cstddef>
#include <functional>
#include <new>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

#include <tolvin/performer/pf.h>

namespace tolvin
{

inline std::size_t blocksInUse()
{
    pfArenaInfo info;
    pfGetArenaInfo(&info);
    return info.blocksInUse;
}

// Tries an action in a full arena, then with so many bytes more each time until it succeeds. Whenever it throws, it has to leave
// nothing behind. Returns how often that was.
inline int refusalsUntilThereIsRoom(std::size_t more, const std::function<void()> &action)
{
    std::vector<void *> fillers; // the last ones are the smallest
    for (const std::size_t size : {std::size_t{1} << 20, more, std::size_t{16}})
    {
        while (void *const filler = pfMalloc(size, pfGetSharedArena()))
        {
            fillers.push_back(filler);
        }
    }
    int refused = -1;
    for (bool done = false; !done && !fillers.empty(); fillers.pop_back())
    {
        const std::size_t before = blocksInUse();
        try
        {
            action();
            done = true;
        }
        catch (const std::exception &)
        {
        }
        EXPECT_EQ(blocksInUse(), before);
        ++refused;
        pfFree(fillers.back());
    }
    for (void *const filler : fillers)
    {
        pfFree(filler);
    }
    return refused;
}

} // namespace tolvin
