#include "kernelvulist.h"

#include <cstdlib>

namespace
{
void empty(vuList *list)
{
    list->first = nullptr;
    list->last = nullptr;
    list->curr = nullptr;
    list->size = 0;
    list->posi = -1;
}

// A new entry linked between two neighbours, either of which may be null at the end of the list; null when the heap is
// exhausted. The cursor and its position are the caller's.
vuListEntry *addBetween(vuList *list, vuListEntry *prev, vuListEntry *next, void *data)
{
    list->optimized = 0;
    auto *entry = static_cast<vuListEntry *>(malloc(sizeof(vuListEntry)));
    if (entry == nullptr)
    {
        return nullptr;
    }
    *entry = {prev, next, data};
    (prev != nullptr ? prev->next : list->first) = entry;
    (next != nullptr ? next->prev : list->last) = entry;
    if (++list->size == 1)
    {
        list->curr = entry;
        list->posi = 0;
    }
    return entry;
}

bool refused(const vuList *list, const void *data)
{
    return list == nullptr || data == nullptr;
}

void *moveCursor(vuList *list, vuListEntry *entry, int32_t position)
{
    if (entry == nullptr)
    {
        return nullptr;
    }
    list->curr = entry;
    list->posi = position;
    return entry->data;
}
} // namespace

void vuListEntryInit(vuListEntry *entry, void *data)
{
    if (entry != nullptr)
    {
        *entry = {nullptr, nullptr, data};
    }
}

void *vuListEntryFree(vuListEntry *entry)
{
    if (entry == nullptr)
    {
        return nullptr;
    }
    void *data = entry->data;
    *entry = {};
    free(entry);
    return data;
}

void vuListEntrySetData(vuListEntry *entry, void *data)
{
    entry->data = data;
}

void *vuListEntryGetData(const vuListEntry *entry)
{
    return entry->data;
}

void vuListEntrySetNext(vuListEntry *entry, vuListEntry *next)
{
    entry->next = next;
}

vuListEntry *vuListEntryGetNext(const vuListEntry *entry)
{
    return entry->next;
}

void vuListEntrySetPrev(vuListEntry *entry, vuListEntry *prev)
{
    entry->prev = prev;
}

vuListEntry *vuListEntryGetPrev(const vuListEntry *entry)
{
    return entry->prev;
}

int vuListInit(vuList *list)
{
    if (list == nullptr)
    {
        return 0;
    }
    empty(list);
    list->optimized = 0;
    return 1;
}

int vuListFree(vuList *list)
{
    if (list == nullptr)
    {
        return -1;
    }
    if (list->size == 0)
    {
        empty(list);
    }
    return list->size;
}

int vuListGetSize(const vuList *list)
{
    return list != nullptr ? list->size : -1;
}

int vuListGetPosi(const vuList *list)
{
    return list != nullptr ? list->posi : -1;
}

int vuListInsert(vuList *list, void *data)
{
    if (refused(list, data))
    {
        return 0;
    }
    vuListEntry *cursor = list->curr;
    if (addBetween(list, cursor != nullptr ? cursor->prev : nullptr, cursor, data) == nullptr)
    {
        return 0;
    }
    if (cursor != nullptr)
    {
        ++list->posi;
    }
    return list->size;
}

int vuListAppend(vuList *list, void *data)
{
    if (refused(list, data))
    {
        return 0;
    }
    vuListEntry *cursor = list->curr;
    return addBetween(list, cursor, cursor != nullptr ? cursor->next : nullptr, data) != nullptr ? list->size : 0;
}

int vuListAdd(vuList *list, void *data)
{
    if (refused(list, data))
    {
        return 0;
    }
    return addBetween(list, list->last, nullptr, data) != nullptr ? list->size : 0;
}

void *vuListRemove(vuList *list)
{
    if (list == nullptr || list->curr == nullptr)
    {
        return nullptr;
    }
    vuListEntry *gone = list->curr;
    (gone->prev != nullptr ? gone->prev->next : list->first) = gone->next;
    (gone->next != nullptr ? gone->next->prev : list->last) = gone->prev;
    list->curr = gone->next;
    if (gone->next == nullptr)
    {
        list->curr = gone->prev;
        --list->posi;
    }
    --list->size;
    list->optimized = 0;
    return vuListEntryFree(gone);
}

void *vuListGetFirst(vuList *list)
{
    return list != nullptr ? moveCursor(list, list->first, 0) : nullptr;
}

void *vuListGetLast(vuList *list)
{
    return list != nullptr ? moveCursor(list, list->last, list->size - 1) : nullptr;
}

void *vuListGetCurr(vuList *list)
{
    return list != nullptr ? moveCursor(list, list->curr, list->posi) : nullptr;
}

void *vuListGetPrev(vuList *list)
{
    return list != nullptr && list->curr != nullptr ? moveCursor(list, list->curr->prev, list->posi - 1) : nullptr;
}

void *vuListGetNext(vuList *list)
{
    return list != nullptr && list->curr != nullptr ? moveCursor(list, list->curr->next, list->posi + 1) : nullptr;
}

void *vuListGetAt(vuList *list, int position)
{
    if (list == nullptr || position < 0 || position >= list->size)
    {
        return nullptr;
    }
    if (position < list->posi && list->posi - position >= position)
    {
        vuListGetFirst(list);
    }
    else if (position > list->posi && position - list->posi >= list->size - 1 - position)
    {
        vuListGetLast(list);
    }
    while (list->posi < position)
    {
        vuListGetNext(list);
    }
    while (list->posi > position)
    {
        vuListGetPrev(list);
    }
    return vuListGetCurr(list);
}

int vuListOptimize(vuList *list)
{
    if (list == nullptr)
    {
        return 0;
    }
    if (list->optimized == 1 || list->size == 0)
    {
        return list->optimized;
    }
    // The mark tells that the heap had room for all entries in one block; entries stay linked, so the block goes back.
    const auto entries = static_cast<size_t>(list->size);
    void *block = entries <= SIZE_MAX / sizeof(vuListEntry) ? malloc(entries * sizeof(vuListEntry)) : nullptr;
    if (block == nullptr)
    {
        return list->optimized;
    }
    free(block);
    vuListGetLast(list);
    list->optimized = 1;
    return 1;
}
