#include "pfmemory.h"

#include "pftype.hpp"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

#include <boost/interprocess/mem_algo/rbtree_best_fit.hpp>
#include <boost/interprocess/sync/mutex_family.hpp>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

// How the arena outlives a process that is killed inside it:
//
// A robust mutex guards the arena, so the next process to lock it is told that the owner died. What the owner was
// changing then falls into two parts. The counters and marks (State) exist twice: a change fills the copy that is not in
// force and puts it in force with one store, so it happens as a whole or not at all. The heap's own records cannot be
// undone: if the owner died while they were changing, that heap is given up and a fresh one starts above the last block
// ever handed out. Blocks of the old heap stay where they are and can be released as before, but their memory is not
// used again. The store that puts a state in force ends an allocation and begins a release: a block whose allocation was
// cut short never counts, one whose release was cut short no longer does.
//
// A killed process has executed some first part of its instructions. Others look at what it left only after the kernel
// has passed them the mutex, so nothing more than the order of the compiled stores matters: setPhase keeps that.
//
// The deletion of a typed object may lead to others, to any depth. Those that are to be deleted form a list, linked
// through their headers, so that this takes neither stack nor memory; they are no blocks in use any more. What a process
// that is killed meanwhile had on its list is lost to all, like blocks that it alone knew.

namespace
{

constexpr size_t kAlignment = 16;
constexpr size_t kMinArenaSize = 64 << 10;
constexpr uintptr_t kLowestAddress = 8192; // the first page is nobody's

// The mutex of the arena stands for the heap's own. The mapping has the same address in all processes, so plain
// pointers do.
using Heap = boost::interprocess::rbtree_best_fit<boost::interprocess::null_mutex_family, void *, kAlignment>;

// Stands before every block, in the arena and in the process heap alike. check is the last member, so that a write just
// before the block is noticed before it can do harm.
struct alignas(kAlignment) Block
{
    const pfType *type;
    size_t bytes; // as requested
    int32_t references;
    uintptr_t check; // liveCheck while the block is in use; then the address of the next one of a deletion, or 0
};

static_assert(sizeof(Block) == offsetof(Block, check) + sizeof(uintptr_t) && alignof(std::max_align_t) >= kAlignment);
static_assert(std::atomic<uint32_t>::is_always_lock_free && std::atomic_ref<int32_t>::is_always_lock_free &&
              std::atomic_ref<uintptr_t>::is_always_lock_free);

// The type of blocks that are no typed objects.
constexpr pfType kPlain = {"plain block", nullptr, nullptr};

// What changes together. Positions are in bytes from the start of the mapping.
struct State
{
    size_t heap;      // of the heap that serves allocations; the arena's size when there is no room for one
    size_t highWater; // greatest end of any block handed out
    pfArenaInfo info;
};

// Bits of Arena::phase.
constexpr uint32_t kSecond = 1;   // the second state is in force
constexpr uint32_t kChanging = 2; // records of the heap are changing

// The start of the mapping.
struct alignas(kAlignment) Arena
{
    pthread_mutex_t mutex;
    size_t size;
    std::atomic<uint32_t> phase;
    State states[2];
};

// The arena of this process, null before first use, and the size it is to have. A fork waits while another thread is
// making the arena: the child gets a whole one, and no mutex that nobody in it would unlock.
std::atomic<Arena *> madeArena = nullptr;
size_t wantedSize = PF_ARENA_DEFAULT_SIZE;
std::mutex making;
[[maybe_unused]] const int forkHandlers =
    pthread_atfork([] { making.lock(); }, [] { making.unlock(); }, [] { making.unlock(); });

char *at(Arena &arena, size_t position)
{
    return reinterpret_cast<char *>(&arena) + position;
}

size_t positionOf(const Arena &arena, const void *place)
{
    return reinterpret_cast<uintptr_t>(place) - reinterpret_cast<uintptr_t>(&arena);
}

void setPhase(Arena &arena, uint32_t phase)
{
    std::atomic_signal_fence(std::memory_order_seq_cst);
    arena.phase.store(phase, std::memory_order_relaxed);
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

uint32_t inForce(const Arena &arena)
{
    return arena.phase.load(std::memory_order_relaxed) & kSecond;
}

// A copy of the state in force, to be changed and then put in force by setPhase(arena, 1 - inForce(arena)).
State &nextState(Arena &arena)
{
    const uint32_t now = inForce(arena);
    return arena.states[1 - now] = arena.states[now];
}

// Construct a heap from the position on. Returns its position, or the arena's size when there is no room.
size_t makeHeap(Arena &arena, size_t position)
{
    position = std::min((position + kAlignment - 1) / kAlignment * kAlignment, arena.size);
    if (arena.size - position < Heap::get_min_size(0))
    {
        return arena.size;
    }
    new (at(arena, position)) Heap(arena.size - position, 0);
    return position;
}

// The mutex is held and its last owner died. May itself be cut short anywhere and done again by the next.
void recover(Arena &arena)
{
    pthread_mutex_consistent(&arena.mutex);
    if (arena.phase.load(std::memory_order_relaxed) & kChanging)
    {
        State &next = nextState(arena);
        next.heap = makeHeap(arena, next.highWater);
        ++next.info.recoveries;
        setPhase(arena, 1 - inForce(arena));
    }
}

// Holds the mutex of the arena. Locking a robust mutex that everybody makes consistent has no other errors.
class Lock
{
public:
    explicit Lock(Arena &locked) : arena(locked)
    {
        if (pthread_mutex_lock(&arena.mutex) == EOWNERDEAD)
        {
            recover(arena);
        }
    }
    ~Lock()
    {
        pthread_mutex_unlock(&arena.mutex);
    }
    Lock(const Lock &) = delete;
    Lock &operator=(const Lock &) = delete;

private:
    Arena &arena;
};

bool initMutex(pthread_mutex_t &mutex)
{
    pthread_mutexattr_t attributes;
    if (pthread_mutexattr_init(&attributes) != 0)
    {
        return false;
    }
    const bool ok = pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED) == 0 &&
                    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST) == 0 &&
                    pthread_mutex_init(&mutex, &attributes) == 0;
    pthread_mutexattr_destroy(&attributes);
    return ok;
}

Arena *makeArena(size_t size)
{
    void *mapping = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (mapping == MAP_FAILED)
    {
        fprintf(stderr, "pfGetSharedArena: cannot map %zu bytes: %s\n", size, strerror(errno));
        return nullptr;
    }
    Arena *arena = new (mapping) Arena{};
    if (!initMutex(arena->mutex))
    {
        fprintf(stderr, "pfGetSharedArena: no robust mutex between processes here\n");
        munmap(mapping, size);
        return nullptr;
    }
    arena->size = size;
    State &state = arena->states[0];
    state.info.size = size;
    state.heap = makeHeap(*arena, sizeof(Arena));
    state.highWater = state.heap;
    return arena;
}

// Memory for a block of the arena, its header not filled in; null when there is no room.
void *takeFrom(Arena &arena, size_t bytes)
{
    const Lock lock(arena);
    const uint32_t now = inForce(arena);
    void *memory = nullptr;
    // The heap rounds sizes up without a look at overflow, so it never gets to see the greatest.
    if (bytes < arena.size && arena.states[now].heap < arena.size)
    {
        setPhase(arena, now | kChanging);
        memory = reinterpret_cast<Heap *>(at(arena, arena.states[now].heap))->allocate(sizeof(Block) + bytes);
    }
    if (memory == nullptr)
    {
        ++arena.states[now].info.refused;
        setPhase(arena, now);
        return nullptr;
    }
    State &next = nextState(arena);
    next.highWater = std::max(next.highWater, positionOf(arena, memory) + sizeof(Block) + bytes);
    ++next.info.blocksInUse;
    next.info.bytesInUse += bytes;
    next.info.peakBytes = std::max(next.info.peakBytes, next.info.bytesInUse);
    setPhase(arena, 1 - now);
    return memory;
}

// Tied to the address, so that a copy of a block does not pass for one. Never the address of a block: those are
// multiples of the alignment.
uintptr_t liveCheck(const Block *block)
{
    return reinterpret_cast<uintptr_t>(block) ^ static_cast<uintptr_t>(0x9d3cf1a7b25e8c64);
}

// Change check from one value to another. Of several who do it at once, one gets true.
bool claim(Block *block, uintptr_t from, uintptr_t to)
{
    return std::atomic_ref(block->check).compare_exchange_strong(from, to);
}

bool giveBack(Arena &arena, Block *block, uintptr_t check)
{
    const Lock lock(arena);
    if (!claim(block, check, 0))
    {
        return false;
    }
    // A process that dies before the next setPhase takes the block with it, counted like all that it still held.
    const uint32_t after = 1 - inForce(arena);
    State &next = nextState(arena);
    --next.info.blocksInUse;
    next.info.bytesInUse -= block->bytes;
    if (positionOf(arena, block) < next.heap)
    {
        setPhase(arena, after); // a block of a heap that was given up
        return true;
    }
    setPhase(arena, after | kChanging);
    reinterpret_cast<Heap *>(at(arena, next.heap))->deallocate(block);
    setPhase(arena, after);
    return true;
}

bool isIn(const Arena *arena, const void *pointer)
{
    return arena != nullptr && positionOf(*arena, pointer) < arena->size;
}

void reportBad(const char *function, const void *pointer)
{
    fprintf(stderr, "%s: %p is not a block in use, ignored\n", function, pointer);
}

// The block of a pointer given to function; null, and a report unless the pointer is null too, when there is none.
Block *findBlock(const char *function, const void *pointer)
{
    if (pointer == nullptr)
    {
        return nullptr;
    }
    const Arena *arena = madeArena.load(std::memory_order_acquire);
    const uintptr_t address = reinterpret_cast<uintptr_t>(pointer);
    const bool onArenaHeader = isIn(arena, pointer) && positionOf(*arena, pointer) < sizeof(Arena) + sizeof(Block);
    const bool possible = address % kAlignment == 0 && address >= kLowestAddress && !onArenaHeader;
    Block *block = reinterpret_cast<Block *>(address - sizeof(Block));
    if (!possible || std::atomic_ref(block->check).load(std::memory_order_relaxed) != liveCheck(block))
    {
        reportBad(function, pointer);
        return nullptr;
    }
    return block;
}

// Release a block in use or on the list of a deletion, which has the given check. False, and a report, when another was
// faster.
bool release(const char *function, Block *block, uintptr_t check)
{
    Arena *arena = madeArena.load(std::memory_order_acquire);
    const bool inArena = isIn(arena, block + 1);
    if (!(inArena ? giveBack(*arena, block, check) : claim(block, check, 0)))
    {
        reportBad(function, block + 1);
        return false;
    }
    if (!inArena)
    {
        free(block);
    }
    return true;
}

// Take a reference away, if there is one. Returns how many are left.
int32_t dropReference(Block *block)
{
    std::atomic_ref references(block->references);
    int32_t count = references.load();
    while (count > 0 && !references.compare_exchange_weak(count, count - 1))
    {
    }
    return std::max(count - 1, 0);
}

} // namespace

struct pfDeletion
{
    Block *first = nullptr;

    // False, and a report, when another deletes the block already.
    bool add(Block *block)
    {
        if (!claim(block, liveCheck(block), reinterpret_cast<uintptr_t>(first)))
        {
            reportBad("pfDelete", block + 1);
            return false;
        }
        first = block;
        return true;
    }

    // Delete what is on the list, and what gets there meanwhile.
    void run()
    {
        while (first != nullptr)
        {
            Block *const block = first;
            const uintptr_t next = block->check;
            first = reinterpret_cast<Block *>(next);
            for (const pfType *type = block->type; type != nullptr; type = type->parent)
            {
                if (type->release != nullptr)
                {
                    type->release(block + 1, *this);
                }
            }
            release("pfDelete", block, next);
        }
    }
};

int pfSharedArenaSize(size_t bytes)
{
    if (bytes < kMinArenaSize || bytes > PTRDIFF_MAX)
    {
        fprintf(stderr, "pfSharedArenaSize: %zu bytes: expected %zu to %zu\n", bytes, kMinArenaSize,
                static_cast<size_t>(PTRDIFF_MAX));
        return 0;
    }
    const std::lock_guard lock(making);
    if (madeArena.load(std::memory_order_relaxed) != nullptr)
    {
        fprintf(stderr, "pfSharedArenaSize: the arena exists already, its size stays\n");
        return 0;
    }
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    wantedSize = (bytes + page - 1) / page * page;
    return 1;
}

void *pfGetSharedArena(void)
{
    if (Arena *arena = madeArena.load(std::memory_order_acquire))
    {
        return arena;
    }
    const std::lock_guard lock(making);
    Arena *arena = madeArena.load(std::memory_order_relaxed);
    if (arena == nullptr)
    {
        arena = makeArena(wantedSize);
        madeArena.store(arena, std::memory_order_release);
    }
    return arena;
}

void pfGetArenaInfo(pfArenaInfo *info)
{
    *info = {};
    if (Arena *arena = madeArena.load(std::memory_order_acquire))
    {
        const Lock lock(*arena);
        *info = arena->states[inForce(*arena)].info;
    }
}

void *pfMalloc(size_t bytes, void *arena)
{
    if (arena != nullptr && arena != madeArena.load(std::memory_order_acquire))
    {
        fprintf(stderr, "pfMalloc: %p is not the shared arena\n", arena);
        return nullptr;
    }
    bytes = std::max<size_t>(bytes, 1);
    void *memory = nullptr;
    if (arena != nullptr)
    {
        memory = takeFrom(*static_cast<Arena *>(arena), bytes);
    }
    else if (bytes <= PTRDIFF_MAX - sizeof(Block))
    {
        memory = malloc(sizeof(Block) + bytes);
    }
    if (memory == nullptr)
    {
        return nullptr;
    }
    // Nobody else knows the block yet, so the mutex is not needed for this.
    Block *block = new (memory) Block{&kPlain, bytes, 0, 0};
    block->check = liveCheck(block);
    return block + 1;
}

void pfFree(void *block)
{
    if (Block *found = findBlock("pfFree", block))
    {
        release("pfFree", found, liveCheck(found));
    }
}

int pfRef(void *object)
{
    Block *block = findBlock("pfRef", object);
    return block != nullptr ? std::atomic_ref(block->references).fetch_add(1) + 1 : -1;
}

int pfUnref(void *object)
{
    Block *block = findBlock("pfUnref", object);
    return block != nullptr ? dropReference(block) : -1;
}

int pfGetRef(const void *object)
{
    Block *block = findBlock("pfGetRef", object);
    return block != nullptr ? std::atomic_ref(block->references).load() : -1;
}

int pfDelete(void *object)
{
    Block *block = findBlock("pfDelete", object);
    if (block == nullptr)
    {
        return -1;
    }
    if (std::atomic_ref(block->references).load() > 0)
    {
        return 0;
    }
    if (block->type == &kPlain)
    {
        return release("pfDelete", block, liveCheck(block)) ? 1 : -1;
    }
    pfDeletion deletion;
    if (!deletion.add(block))
    {
        return -1;
    }
    deletion.run();
    return 1;
}

void pfSetType(void *block, const pfType &type)
{
    (static_cast<Block *>(block) - 1)->type = &type;
}

const pfType *pfTypeOf(const char *function, const void *object)
{
    const Block *block = findBlock(function, object);
    return block != nullptr ? block->type : nullptr;
}

void pfGiveBack(void *object, pfDeletion &deletion)
{
    Block *block = findBlock("pfDelete", object);
    if (block != nullptr && dropReference(block) == 0)
    {
        deletion.add(block);
    }
}
