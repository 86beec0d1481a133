#include "support/capture.h"

#include <gtest/gtest.h>

#include <tolvin/performer/pf.h>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <utility>
#include <vector>

namespace
{

using Bytes = unsigned char *;
constexpr size_t kArenaSize = 1 << 20;

// Runs the body in so many processes at once; its argument counts them from 0, and an alarm ends those that hang.
// Returns 0 when all ended well, else the status of one that did not, as wait tells it.
int inProcesses(unsigned count, const std::function<void(unsigned)> &body)
{
    fflush(nullptr);
    for (unsigned process = 0; process < count; ++process)
    {
        if (fork() == 0)
        {
            alarm(60);
            body(process);
            fflush(nullptr);
            _exit(testing::Test::HasFailure());
        }
    }
    int result = 0;
    for (int status = -1; count-- > 0; result = result != 0 ? result : status)
    {
        wait(&status);
    }
    return result;
}

Bytes newArena(size_t bytes)
{
    EXPECT_EQ(1, pfSharedArenaSize(bytes));
    return static_cast<Bytes>(pfGetSharedArena());
}

pfArenaInfo info()
{
    pfArenaInfo now;
    pfGetArenaInfo(&now);
    return now;
}

// A block that starts with its size and is filled with a byte made of it.
Bytes makeBlock(void *arena, size_t bytes)
{
    Bytes block = static_cast<Bytes>(memset(pfMalloc(bytes, arena), static_cast<unsigned char>(bytes * 7), bytes));
    memcpy(block, &bytes, sizeof bytes);
    return block;
}

bool isIntact(const unsigned char *block)
{
    size_t bytes;
    memcpy(&bytes, block, sizeof bytes);
    const auto count = std::count(block + sizeof bytes, block + bytes, static_cast<unsigned char>(bytes * 7));
    return static_cast<size_t>(count) == bytes - sizeof bytes;
}

// Allocates, checks and releases blocks in random order; none are left in the end.
void churn(void *arena, unsigned seed)
{
    srand48(seed);
    Bytes held[8] = {};
    for (size_t step = 30008; step-- > 0;)
    {
        Bytes &block = held[step < 8 ? step : lrand48() % 8];
        ASSERT_TRUE(!block || isIntact(block));
        pfFree(block);
        block = step < 8 ? nullptr : makeBlock(arena, 16 + lrand48() % 300);
    }
}

// Runs the action in a process that is killed when it writes to a whole page behind the given place in the arena.
void killAtWrite(Bytes place, const std::function<void()> &action)
{
    const auto victim = [=](unsigned)
    {
        signal(SIGSEGV, [](int) { raise(SIGKILL); });
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        mprotect(place + page - reinterpret_cast<uintptr_t>(place) % page, kArenaSize / 2, PROT_READ);
        action();
    };
    EXPECT_EQ(SIGKILL, inProcesses(1, victim));
}

} // namespace

// Every test runs in a process of its own, because an arena, once made, stays.
#define PROCESS_TEST(name)                                                                                             \
    static void name(unsigned);                                                                                        \
    TEST(PfMemory, name)                                                                                               \
    {                                                                                                                  \
        EXPECT_EQ(0, inProcesses(1, name));                                                                            \
    }                                                                                                                  \
    static void name(unsigned)

PROCESS_TEST(SizeIsSetBeforeFirstUseOnly)
{
    EXPECT_NE("", capturedStderr([] { EXPECT_EQ(0, pfSharedArenaSize(65535) + pfSharedArenaSize(SIZE_MAX)); }));
    EXPECT_EQ(0u, info().size);
    // Leaves no room for the half of all addresses in a 32-bit process either.
    mmap(nullptr, SIZE_MAX / 4, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    EXPECT_NE("", capturedStderr([] { EXPECT_EQ(nullptr, newArena(PTRDIFF_MAX)); }));
    EXPECT_NE(nullptr, pfMalloc(60000, newArena(65536)));
    EXPECT_NE("", capturedStderr([] { EXPECT_EQ(0, pfSharedArenaSize(kArenaSize)); }));
    EXPECT_EQ(65536u, info().size);
}

PROCESS_TEST(BlocksAreAlignedCountedAndRefusedWhenTheArenaIsFull)
{
    Bytes sharedArena = newArena(kArenaSize);
    std::vector<void *> blocks;
    for (void *arena : {sharedArena, Bytes{}})
    {
        for (size_t bytes : {0, 1, 15, 16, 17, 4096, 100000})
        {
            blocks.push_back(memset(pfMalloc(bytes, arena), 1, bytes));
            EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(blocks.back()) % 16) << bytes;
        }
        for (size_t bytes : {SIZE_MAX, SIZE_MAX - 15, SIZE_MAX - 64, SIZE_MAX / 2 + 1})
        {
            EXPECT_EQ(nullptr, pfMalloc(bytes, arena)) << bytes;
        }
    }
    EXPECT_EQ(7u, info().blocksInUse);
    EXPECT_EQ(104146u, info().bytesInUse); // the block of no bytes counts as one
    EXPECT_EQ(4u, info().refused);
    while (void *block = pfMalloc(1000, sharedArena))
    {
        blocks.push_back(block);
    }
    EXPECT_GT(info().peakBytes, kArenaSize * 9 / 10);
    for (size_t i = 0; i < blocks.size(); ++i)
    {
        std::swap(blocks[i], blocks[i + lrand48() % (blocks.size() - i)]), pfFree(blocks[i]);
    }
    EXPECT_EQ(0u, info().blocksInUse + info().bytesInUse);
    EXPECT_NE(nullptr, pfMalloc(kArenaSize * 9 / 10, sharedArena));
}

PROCESS_TEST(PointersThatAreNoBlocksAreReportedAndIgnored)
{
    alignas(16) static unsigned char foreign[64] = {};
    Bytes arena = newArena(kArenaSize), live = makeBlock(arena, 200), released = makeBlock(arena, 200);
    pfFree(released);
    memcpy(live + 16, live - 32, 48); // a copy of a block with its header is not a block
    for (Bytes bad : {released, live + 8, live + 48, live + 64, arena, arena + 16, arena + kArenaSize - 16,
                      foreign + 32, reinterpret_cast<Bytes>(16)})
    {
        const auto misuse = [=]
        {
            pfFree(bad);
            EXPECT_EQ(-4, pfDelete(bad) + pfRef(bad) + pfUnref(bad) + pfGetRef(bad));
        };
        const std::string said = capturedStderr(misuse);
        EXPECT_EQ(5, std::count(said.begin(), said.end(), '\n')) << said;
    }
    EXPECT_EQ("", capturedStderr([] { EXPECT_EQ(-1, pfDelete(nullptr)); }));
    EXPECT_NE("", capturedStderr([] { EXPECT_EQ(nullptr, pfMalloc(1, foreign)); }));
    EXPECT_EQ(1u, info().blocksInUse);
}

PROCESS_TEST(ProcessesShareBlocksAndReferences)
{
    void *arena = newArena(kArenaSize);
    Bytes *exchange = static_cast<Bytes *>(pfMalloc(sizeof(Bytes), arena));
    *exchange = makeBlock(arena, 5000);
    const auto child = [=](unsigned)
    {
        EXPECT_TRUE(isIntact(*exchange));
        pfFree(*exchange);
        *exchange = makeBlock(arena, 6000);
    };
    EXPECT_EQ(0, inProcesses(1, child));
    EXPECT_TRUE(isIntact(*exchange));
    EXPECT_EQ(6000 + sizeof(Bytes), info().bytesInUse);
    pfFree(*exchange);

    const auto user = [=](unsigned process)
    {
        for (int i = 0; i < 1000000; ++i)
        {
            pfRef(exchange);
        }
        churn(arena, process + 1);
    };
    EXPECT_EQ(0, inProcesses(4, user));
    EXPECT_EQ(4000000, pfGetRef(exchange));
    while (pfUnref(exchange) > 1)
    {
    }
    EXPECT_EQ(0, pfDelete(exchange));
    EXPECT_EQ(0, pfUnref(exchange) + pfUnref(exchange) + pfGetRef(exchange)); // stays at 0
    EXPECT_EQ(1, pfDelete(exchange));
    EXPECT_EQ(0u, info().blocksInUse + info().bytesInUse + info().recoveries);
    EXPECT_NE(nullptr, pfMalloc(kArenaSize * 9 / 10, arena));
}

PROCESS_TEST(HeapIsGivenUpWhenAProcessDiesChangingIt)
{
    Bytes arena = newArena(kArenaSize), first = makeBlock(arena, 40000), second = makeBlock(arena, 40000);
    // Dies at the record of what remains free, when the free block is cut in two already.
    killAtWrite(second + 60000, [=] { pfMalloc(50000, arena); });
    Bytes last = makeBlock(arena, 700000);
    EXPECT_TRUE(isIntact(first) && isIntact(second) && isIntact(last));
    EXPECT_EQ(780000u, info().bytesInUse);

    while (pfMalloc(16, arena))
    {
    }
    const size_t blocks = info().blocksInUse;
    killAtWrite(last + 350000, [=] { pfFree(last); });
    EXPECT_EQ(nullptr, pfMalloc(1, arena)); // no room for another heap
    EXPECT_EQ(2u, info().recoveries);
    pfFree(first);
    EXPECT_EQ(blocks - 2, info().blocksInUse);
}
