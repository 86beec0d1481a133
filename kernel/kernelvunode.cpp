#include "kernelvunode.h"

#include <cstdio>
#include <cstring>

#include "../performer/pf.h"
#include "kernelutil.h"

namespace
{
constexpr char kModule[] = "kernelvunode";

// Repair of a list whose ends were found wrong, from the end that is right. The walks follow only links that agree in
// both directions: those stay among the nodes of the list even if one of them was appended to another list meanwhile,
// and they visit no node twice before they come back to the start. A ring is opened there.
vunode *makeHead(vunode *start)
{
    vunode *head = start;
    while (head->prev != nullptr && head->prev != start && head->prev->next == head)
    {
        head = head->prev;
    }
    head->prev = nullptr;
    if (start->next == head)
    {
        start->next = nullptr;
    }
    return head;
}

vunode *makeTail(vunode *start)
{
    vunode *tail = start;
    while (tail->next != nullptr && tail->next != start && tail->next->prev == tail)
    {
        tail = tail->next;
    }
    tail->next = nullptr;
    if (start->prev == tail)
    {
        start->prev = nullptr;
    }
    return tail;
}
} // namespace

vuminnode *vuminnodeInit(vuminnode *node)
{
    node->next = nullptr;
    node->prev = nullptr;
    return node;
}

void vunodeInit(vunode *node, const char *name)
{
    *node = {};
    if (name != nullptr)
    {
        const size_t bytes = strlen(name) + 1;
        node->name = static_cast<char *>(pfMalloc(bytes, pfGetSharedArena()));
        if (node->name != nullptr)
        {
            memcpy(node->name, name, bytes);
        }
    }
}

void vulistInit(vulist *list)
{
    list->first = nullptr;
    list->last = nullptr;
}

void vunodeAppend(vulist *list, vunode *node)
{
    if (list->first == nullptr)
    {
        list->first = node;
    }
    if (list->last != nullptr)
    {
        list->last->next = node;
    }
    node->prev = list->last;
    list->last = node;
    node->next = nullptr;
}

void vunodeRemove(vulist *list, vunode *node)
{
    if (list == nullptr)
    {
        vuMessage("Debug", kModule, 263, "List NULL");
        return;
    }
    if (node == nullptr)
    {
        vuMessage("Debug", kModule, 267, "Node NULL");
        return;
    }
    const bool isFirst = list->first == node;
    const bool isLast = list->last == node;
    // A head without a predecessor is taken off as the head, whatever its other end is like.
    const bool soundHead = isFirst && node->prev == nullptr;
    const bool soundTail = isLast && node->next == nullptr;
    if (isFirst && !soundHead)
    {
        vuMessage(nullptr, kModule, 284, "Mismatch Head Node");
    }
    if (isLast && !soundTail && !soundHead)
    {
        vuMessage(nullptr, kModule, 299, "Mismatch Tail Node");
    }

    // A node that was appended twice in a row is its own neighbour; the list must not keep it.
    vunode *const prev = node->prev != node ? node->prev : nullptr;
    vunode *const next = node->next != node ? node->next : nullptr;
    node->prev = nullptr;
    node->next = nullptr;
    if (prev != nullptr)
    {
        prev->next = next;
    }
    if (next != nullptr)
    {
        next->prev = prev;
    }

    if (isFirst)
    {
        list->first = soundHead ? next : nullptr;
    }
    if (isLast)
    {
        list->last = soundTail ? prev : nullptr;
    }
    if (isFirst && !soundHead && list->last != nullptr)
    {
        list->first = makeHead(list->last);
    }
    if (isLast && !soundTail && list->first != nullptr)
    {
        list->last = makeTail(list->first);
    }
    if (isFirst && list->first == nullptr)
    {
        list->last = nullptr;
    }
}

void vunodeDelete(vulist *list, vunode *node)
{
    vunodeRemove(list, node);
    if (node != nullptr)
    {
        pfFree(node->name);
        node->name = nullptr;
    }
}

vunode *vunodeListFindNamed(const vulist *list, const char *name)
{
    vunode *node = list->first;
    while (node != nullptr && (node->name == nullptr || strcmp(node->name, name) != 0))
    {
        node = node->next;
    }
    return node;
}

int vunodesCount(const vulist *list)
{
    if (list == nullptr)
    {
        fprintf(stderr, "%s:%d: Warning: NULL List\n", kModule, 451);
        return 0;
    }
    int count = 0;
    for (const vunode *node = list->first; node != nullptr; node = node->next)
    {
        ++count;
    }
    return count;
}
