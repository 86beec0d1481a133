// Blocks of the shared arena, and want of room there.
#pragma once

#include <algorithm>
#include <cstddef>
#include <functional>
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

// Sees that what is made after it leaves nothing in the arena.
struct NothingStays
{
    const std::size_t before = (pfGetSharedArena(), blocksInUse());

    ~NothingStays()
    {
        EXPECT_EQ(blocksInUse(), before);
    }
};

// Takes blocks whose size halves from one to another, each until there is no room for it.
inline std::vector<void *> fillersOf(std::size_t greatest, std::size_t least = 1, void *arena = pfGetSharedArena())
{
    std::vector<void *> fillers;
    for (std::size_t bytes = greatest; bytes >= least; bytes /= 2)
    {
        while (void *const filler = pfMalloc(bytes, arena))
        {
            fillers.push_back(filler);
        }
    }
    return fillers;
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
    std::ranges::for_each(fillers, pfFree);
    return refused;
}

} // namespace tolvin
