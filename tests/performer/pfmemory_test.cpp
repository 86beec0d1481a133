#include "support/capture.h"

#include <gtest/gtest.h>

#include <tolvin/performer/pf.h>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <functional>
#include <random>
#include <thread>
#include <utility>
#include <vector>

namespace
{

using Bytes = unsigned char *;
constexpr size_t kArenaSize = 1 << 20;
constexpr size_t kHeld = 8;

// Starts a process that runs the body; the alarm ends one that hangs.
pid_t start(const std::function<void()> &body)
{
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0)
    {
        alarm(60);
        body();
        fflush(nullptr);
        _exit(testing::Test::HasFailure());
    }
    return pid;
}

// 0 when the process ended well, else its exit status or the signal that ended it, as waitpid tells them.
int endOf(pid_t pid)
{
    int status = -1;
    waitpid(pid, &status, 0);
    return status;
}

// Runs the body in so many processes at once; its argument counts them from 0.
void inProcesses(unsigned count, const std::function<void(unsigned)> &body)
{
    std::vector<pid_t> processes;
    while (processes.size() < count)
    {
        processes.push_back(start(std::bind(body, processes.size())));
    }
    EXPECT_TRUE(std::all_of(processes.begin(), processes.end(), [](pid_t process) { return endOf(process) == 0; }));
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

// Allocates, checks and releases blocks in random order, holding at most kHeld; none in the end.
void churn(void *arena, unsigned seed, size_t steps)
{
    std::minstd_rand random(seed);
    Bytes held[kHeld] = {};
    for (size_t i = 0; i < steps + kHeld; ++i)
    {
        Bytes &block = held[i < steps ? random() % kHeld : i - steps];
        ASSERT_TRUE(!block || isIntact(block));
        pfFree(block);
        block = i < steps ? makeBlock(arena, 16 + random() % 300) : nullptr;
    }
}

// Runs the action in a process that is killed when it writes to a whole page of the arena behind the given place.
void killAtWrite(Bytes arena, Bytes place, const std::function<void()> &action)
{
    const pid_t victim = start(
        [=]
        {
            signal(SIGSEGV, [](int) { raise(SIGKILL); });
            const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
            const size_t first = (static_cast<size_t>(place - arena) / page + 1) * page;
            mprotect(arena + first, kArenaSize - first, PROT_READ);
            action();
        });
    EXPECT_EQ(SIGKILL, endOf(victim));
}

} // namespace

// Every test runs in a process of its own, because an arena, once made, stays.
#define PROCESS_TEST(name)                                                                                             \
    static void name(unsigned);                                                                                        \
    TEST(PfMemory, name)                                                                                               \
    {                                                                                                                  \
        inProcesses(1, name);                                                                                          \
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

TEST(PfMemory, ThreadsThatRaceForFirstUseGetOneArena)
{
    for (int round = 0; round < 50; ++round)
    {
        inProcesses(1,
                    [](unsigned)
                    {
                        std::atomic<bool> ready = false;
                        void *others = nullptr;
                        std::thread other(
                            [&]
                            {
                                ready = true;
                                others = pfGetSharedArena();
                            });
                        while (!ready)
                        {
                        }
                        void *mine = pfGetSharedArena();
                        other.join();
                        EXPECT_EQ(mine, others);
                    });
    }
}

PROCESS_TEST(BlocksAreAlignedCountedAndRefusedWhenTheArenaIsFull)
{
    Bytes sharedArena = newArena(kArenaSize);
    void *everything = pfMalloc(kArenaSize * 9 / 10, sharedArena);
    EXPECT_NE(nullptr, everything);
    pfFree(everything);
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
    std::shuffle(blocks.begin(), blocks.end(), std::minstd_rand());
    std::for_each(blocks.begin(), blocks.end(), pfFree);
    EXPECT_EQ(0u, info().blocksInUse + info().bytesInUse);
    EXPECT_EQ(everything, pfMalloc(kArenaSize * 9 / 10, sharedArena));
}

PROCESS_TEST(ReferencesHoldAnObject)
{
    void *object = pfMalloc(10, newArena(kArenaSize));
    EXPECT_EQ(0, pfGetRef(object));
    inProcesses(4,
                [=](unsigned)
                {
                    for (int i = 0; i < 1000000; ++i)
                        pfRef(object);
                });
    EXPECT_EQ(4000000, pfGetRef(object));
    while (pfUnref(object) > 1)
    {
    }
    EXPECT_EQ(0, pfDelete(object));
    EXPECT_EQ(0, pfUnref(object));
    EXPECT_EQ(0, pfUnref(object));
    EXPECT_EQ(0, pfGetRef(object));
    EXPECT_EQ(1, pfDelete(object));
    EXPECT_EQ(0u, info().blocksInUse);
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
        const std::string said = capturedStderr(
            [=]
            {
                pfFree(bad);
                EXPECT_EQ(-4, pfDelete(bad) + pfRef(bad) + pfUnref(bad) + pfGetRef(bad));
            });
        EXPECT_EQ(5, std::count(said.begin(), said.end(), '\n')) << said;
    }
    EXPECT_EQ("", capturedStderr([] { EXPECT_EQ(-1, pfDelete(nullptr)); }));
    EXPECT_NE("", capturedStderr([] { EXPECT_EQ(nullptr, pfMalloc(1, foreign)); }));
    EXPECT_EQ(1u, info().blocksInUse);
}

PROCESS_TEST(ProcessesReleaseEachOthersBlocks)
{
    void *arena = newArena(kArenaSize);
    Bytes *exchange = static_cast<Bytes *>(pfMalloc(sizeof(Bytes), arena));
    *exchange = makeBlock(arena, 5000);
    inProcesses(1,
                [=](unsigned)
                {
                    EXPECT_TRUE(isIntact(*exchange));
                    pfFree(*exchange);
                    *exchange = makeBlock(arena, 6000);
                });
    EXPECT_TRUE(isIntact(*exchange));
    EXPECT_EQ(6000 + sizeof(Bytes), info().bytesInUse);
    pfFree(*exchange);
    pfFree(exchange);

    inProcesses(4, [=](unsigned process) { churn(arena, process + 1, 30000); });
    EXPECT_EQ(0u, info().blocksInUse + info().bytesInUse + info().recoveries);
    EXPECT_NE(nullptr, pfMalloc(kArenaSize * 9 / 10, arena));
}

PROCESS_TEST(HeapIsGivenUpWhenAProcessDiesChangingIt)
{
    Bytes arena = newArena(kArenaSize), first = makeBlock(arena, 40000), second = makeBlock(arena, 40000);
    // Dies at the record of what remains free, when the free block is cut in two already.
    killAtWrite(arena, second + 60000, [=] { pfMalloc(50000, arena); });
    EXPECT_EQ(80000u, info().bytesInUse);
    Bytes third = makeBlock(arena, 40000);
    killAtWrite(arena, third + 20000, [=] { pfFree(third); });
    EXPECT_EQ(80000u, info().bytesInUse);
    EXPECT_EQ(2u, info().recoveries);
    Bytes last = makeBlock(arena, 700000);
    EXPECT_TRUE(isIntact(first) && isIntact(second) && isIntact(last));

    while (pfMalloc(16, arena))
    {
    }
    const size_t blocks = info().blocksInUse;
    killAtWrite(arena, last + 350000, [=] { pfFree(last); });
    EXPECT_EQ(nullptr, pfMalloc(1, arena)); // no room for another heap
    pfFree(first);
    EXPECT_EQ(blocks - 2, info().blocksInUse);
}

PROCESS_TEST(ProcessesKilledAtRandomHarmNobody)
{
    constexpr unsigned kKills = 200;
    void *arena = newArena(size_t{64} << 20);
    const auto startVictim = [=](unsigned seed) { return start([=] { churn(arena, seed, SIZE_MAX - kHeld); }); };
    std::minstd_rand random;
    std::vector<Bytes> kept;
    pid_t other = startVictim(1); // so that one is always there to wait for the mutex of the other
    for (unsigned i = 0; i < kKills; ++i)
    {
        const pid_t victim = std::exchange(other, startVictim(i + 2));
        usleep(random() % 1000);
        kill(victim, SIGKILL);
        ASSERT_EQ(SIGKILL, endOf(victim));
        kept.push_back(makeBlock(arena, 16 + random() % 2000));
    }
    kill(other, SIGKILL);
    EXPECT_EQ(SIGKILL, endOf(other));
    EXPECT_TRUE(std::all_of(kept.begin(), kept.end(), isIntact));
    EXPECT_GT(info().recoveries, 0u);
    std::for_each(kept.begin(), kept.end(), pfFree);
    EXPECT_LE(info().blocksInUse, (kKills + 1) * (kHeld + 1)); // what the dead held and were about to get
}
