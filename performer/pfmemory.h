/*
 * Memory of the platform layer: the shared arena, its blocks and their reference counts.
 *
 * The arena is one shared mapping, made on first use and inherited across fork, so that a parent and all processes it
 * forks afterwards see the same blocks at the same addresses. Any of them may allocate and release at any time; a
 * process killed in the middle of an allocation does not stop the others (pfmemory.cpp tells how). If it dies while
 * it changes the arena, all blocks stay valid, but nothing more is allocated below the highest block handed out so far.
 *
 * Every block carries a reference count, 0 at first. pfFree releases a block whatever its count; pfDelete only when
 * nobody holds a reference. All functions may be called from several threads and processes at once, save that the first
 * use of the arena must come before the first fork for the processes to share it; but not from signal handlers.
 *
 * A pointer into the arena that is not a live block is reported on standard error and otherwise ignored. So is one to
 * anywhere else, provided that the 32 bytes before it can be read.
 */
#ifndef TOLVIN_PERFORMER_PFMEMORY_H
#define TOLVIN_PERFORMER_PFMEMORY_H

#include <stddef.h>
#include <stdint.h>

#define PF_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/* Bytes of the arena when pfSharedArenaSize was not called. Pages cost memory only once they are touched. */
#define PF_ARENA_DEFAULT_SIZE ((size_t)512 << 20)

/* State of the arena at one moment. */
typedef struct pfArenaInfo
{
    size_t size;        /* bytes of the whole mapping */
    size_t blocksInUse; /* blocks allocated and not released */
    size_t bytesInUse;  /* bytes requested for those blocks */
    size_t peakBytes;   /* greatest bytesInUse so far */
    size_t refused;     /* allocations that returned null */
    size_t recoveries;  /* times a process died while it changed the arena */
} pfArenaInfo;

/*
 * Set the size of the arena, in bytes (rounded up to whole pages), before its first use. Returns 1; 0 and no effect, with
 * a line on standard error, when the arena exists already or the size is below 64 KiB or above PTRDIFF_MAX.
 */
PF_API int pfSharedArenaSize(size_t bytes);

/*
 * The shared arena, made by the first call. Null, with a line on standard error, when the mapping cannot be made (a
 * later call tries again). Lives until the process ends.
 */
PF_API void *pfGetSharedArena(void);

/* Fill info; all zero when the arena does not exist. info must not be null. */
PF_API void pfGetArenaInfo(pfArenaInfo *info);

/*
 * Allocate a block of the given size (0 counts as 1), aligned to 16 bytes, contents unspecified, reference count 0.
 *
 * arena   result of pfGetSharedArena, or null for the heap of this process.
 * Returns null when there is no room, without a message; with one when arena is something else. Released with pfFree or
 * pfDelete, by any process for a block of the arena.
 */
PF_API void *pfMalloc(size_t bytes, void *arena);

/* Release a block, whatever its reference count. References that it holds itself are not given back. Null is ignored. */
PF_API void pfFree(void *block);

/* Add a reference to a block. Returns the new count, -1 for null or no live block. */
PF_API int pfRef(void *object);

/* Take a reference away, without releasing the block. Returns the new count, never below 0; -1 for null or no live block. */
PF_API int pfUnref(void *object);

/* Reference count of a block; -1 for null or no live block. */
PF_API int pfGetRef(const void *object);

/*
 * Release an object if nobody holds a reference to it. A typed object (nodes and GeoSets are) gives back the references
 * that it holds itself, and what nobody holds then is deleted in the same way, to any depth. If the process dies
 * meanwhile, what was to be deleted may stay in the arena without being a live block.
 * Returns 1 when it was released, 0 when references remain and nothing happened, -1 for null or no live block.
 */
PF_API int pfDelete(void *object);

#ifdef __cplusplus
}
#endif

#endif
