/*
 * Generic list: a doubly linked list of untyped pointers with a cursor.
 *
 * For callers that want a list of objects without a node head in the objects. The list owns its entries (process heap)
 * and never the data. Insertion happens beside the cursor, removal removes the cursor's entry, positional access walks
 * the cursor. A null list is tolerated everywhere and gives the result named with each function.
 *
 * size is 0 exactly when first, last and curr are null and posi is -1; otherwise curr is an entry of the list and posi
 * its position, counted from 0.
 */
#ifndef TOLVIN_KERNEL_KERNELVULIST_H
#define TOLVIN_KERNEL_KERNELVULIST_H

#include "kernelapi.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct vuListEntry
{
    struct vuListEntry *prev; /* null at the head */
    struct vuListEntry *next; /* null at the tail */
    void *data;               /* never null while in a list; owned by the caller */
} vuListEntry;

VU_LAYOUT(vuListEntry, prev, 0, 4);
VU_LAYOUT(vuListEntry, next, 4, 4);
VU_LAYOUT(vuListEntry, data, 8, 4);
VU_SIZE(vuListEntry, 12);

typedef struct vuList
{
    vuListEntry *first; /* null when empty */
    vuListEntry *last;  /* null when empty */
    vuListEntry *curr;  /* the cursor, null when empty */
    int32_t size;       /* number of entries */
    int32_t posi;       /* position of the cursor, -1 when empty */
    int16_t optimized;  /* 1 after vuListOptimize, 0 after any change */
    int16_t reserved;   /* never written */
} vuList;

VU_LAYOUT(vuList, first, 0, 4);
VU_LAYOUT(vuList, last, 4, 4);
VU_LAYOUT(vuList, curr, 8, 4);
VU_LAYOUT(vuList, size, 12, 4);
VU_LAYOUT(vuList, posi, 16, 4);
VU_LAYOUT(vuList, optimized, 20, 2);
VU_LAYOUT(vuList, reserved, 22, 2);
VU_SIZE(vuList, 24);

/* Clear the links and set data. A null entry is ignored. */
TOLVIN_API void vuListEntryInit(vuListEntry *entry, void *data);

/* Clear and free a heap-allocated entry; returns its former data, null for a null entry. */
TOLVIN_API void *vuListEntryFree(vuListEntry *entry);

/* Plain accessors; entry must not be null. */
TOLVIN_API void vuListEntrySetData(vuListEntry *entry, void *data);
TOLVIN_API void *vuListEntryGetData(const vuListEntry *entry);
TOLVIN_API void vuListEntrySetNext(vuListEntry *entry, vuListEntry *next);
TOLVIN_API vuListEntry *vuListEntryGetNext(const vuListEntry *entry);
TOLVIN_API void vuListEntrySetPrev(vuListEntry *entry, vuListEntry *prev);
TOLVIN_API vuListEntry *vuListEntryGetPrev(const vuListEntry *entry);

/* Make the record an empty list; entries it held are not freed. Returns 1, or 0 for a null list. */
TOLVIN_API int vuListInit(vuList *list);

/*
 * Reset an empty list (optimized keeps its value) and return 0. A list that still has entries is left unchanged and
 * its number of entries is returned: empty it with vuListRemove first. Returns -1 for a null list.
 */
TOLVIN_API int vuListFree(vuList *list);

/* Number of entries, -1 for a null list. */
TOLVIN_API int vuListGetSize(const vuList *list);

/* Position of the cursor, -1 for an empty or null list. */
TOLVIN_API int vuListGetPosi(const vuList *list);

/*
 * Add data before the cursor (Insert), after the cursor (Append) or at the tail (Add). The cursor stays on its entry;
 * in an empty list the new entry becomes the cursor. Returns the new size; 0 and no change for a null list or null data;
 * 0 and no change but optimized 0 when the process heap is exhausted.
 */
TOLVIN_API int vuListInsert(vuList *list, void *data);
TOLVIN_API int vuListAppend(vuList *list, void *data);
TOLVIN_API int vuListAdd(vuList *list, void *data);

/*
 * Remove the cursor's entry and return its data; null for an empty or null list. The cursor goes to the following
 * entry, at the tail to the preceding one.
 */
TOLVIN_API void *vuListRemove(vuList *list);

/*
 * Move the cursor to the first, last, previous or next entry (Curr: leave it) and return the data there. Null for an
 * empty or null list, and, with the cursor left where it is, at the beginning (Prev) or the end (Next).
 */
TOLVIN_API void *vuListGetFirst(vuList *list);
TOLVIN_API void *vuListGetLast(vuList *list);
TOLVIN_API void *vuListGetCurr(vuList *list);
TOLVIN_API void *vuListGetPrev(vuList *list);
TOLVIN_API void *vuListGetNext(vuList *list);

/*
 * Move the cursor to position (counted from 0) by the shortest walk from the first entry, the last entry or the cursor,
 * and return the data there. Null, with the cursor left where it is, when the position is outside the list.
 */
TOLVIN_API void *vuListGetAt(vuList *list, int position);

/*
 * Leave the cursor on the last entry and mark the list optimized. Returns the value of optimized
 * afterwards: 1, also at once when it was 1 already; the unchanged value for an empty list or when the process heap
 * cannot hold a copy of the entries; 0 for a null list.
 */
TOLVIN_API int vuListOptimize(vuList *list);

#ifdef __cplusplus
}
#endif

#endif
