#include "pfnode.h"

#include "pftype.hpp"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <new>
#include <span>
#include <unordered_set>
#include <vector>

// What groups and geodes have in common: the objects to which they hold a reference each, children or GeoSets.
struct pfNode
{
    void *arena; // of the node and of the array
    void **held;
    int count;
    size_t capacity;
};

struct pfGroup : pfNode
{
};

struct pfGeode : pfNode
{
};

namespace
{

void releaseHeld(void *object, pfDeletion &deletion)
{
    const pfNode *node = static_cast<pfNode *>(object);
    for (int i = 0; i < node->count; ++i)
    {
        pfGiveBack(node->held[i], deletion);
    }
    pfFree(node->held);
}

constinit pfType nodeType = {"pfNode", nullptr, releaseHeld};
constinit pfType groupType = {"pfGroup", &nodeType, nullptr};
constinit pfType geodeType = {"pfGeode", &nodeType, nullptr};

template<typename Node>
Node *newNode(const pfType &type, void *arena)
{
    void *memory = pfMalloc(sizeof(Node), arena);
    if (memory == nullptr)
    {
        return nullptr;
    }
    pfSetType(memory, type);
    Node *node = new (memory) Node{};
    node->arena = arena;
    return node;
}

// Make room for one more; false, and nothing changed, when there is none. The node never points to an array that was
// given back, not even when its process is killed in here.
bool grow(pfNode &node)
{
    if (static_cast<size_t>(node.count) < node.capacity)
    {
        return true;
    }
    const size_t capacity = std::max<size_t>(4, 2 * node.capacity);
    void *memory = capacity <= PTRDIFF_MAX / sizeof(void *) ? pfMalloc(capacity * sizeof(void *), node.arena) : nullptr;
    if (memory == nullptr)
    {
        return false;
    }
    void **const old = node.held;
    void **const grown = static_cast<void **>(memory);
    std::copy_n(old, node.count, grown);
    node.held = grown;
    node.capacity = capacity;
    pfFree(old);
    return true;
}

int append(pfNode &node, void *object)
{
    if (node.count == INT_MAX || !grow(node))
    {
        return 0;
    }
    pfRef(object);
    node.held[node.count] = object;
    ++node.count;
    return 1;
}

int takeOut(pfNode &node, void *object)
{
    void **const end = node.held + node.count;
    void **const found = std::find(node.held, end, object);
    if (found == end)
    {
        return 0;
    }
    std::copy(found + 1, end, found);
    --node.count;
    pfUnref(object);
    return 1;
}

void *heldAt(const char *function, const pfNode &node, int index)
{
    if (index < 0 || index >= node.count)
    {
        fprintf(stderr, "%s: no number %d among %d\n", function, index, node.count);
        return nullptr;
    }
    return node.held[index];
}

// Whether a group is below another. Looks at each group once: there may be exponentially many paths to it.
bool isBelow(const pfGroup *sought, const pfGroup *top)
{
    std::unordered_set<const void *> seen;
    std::vector<const pfGroup *> open = {top};
    while (!open.empty())
    {
        const pfGroup *group = open.back();
        open.pop_back();
        for (const void *child : std::span(group->held, static_cast<size_t>(group->count)))
        {
            if (child == sought)
            {
                return true;
            }
            if (pfIsOfType(child, &groupType) && seen.insert(child).second)
            {
                open.push_back(static_cast<const pfGroup *>(child));
            }
        }
    }
    return false;
}

// Whether a group would be below itself if it got the child. A group that nobody holds is in no other one: a graph that
// is built from below costs no search.
bool closesCycle(const pfGroup *group, const pfNode *child)
{
    if (child == group)
    {
        return true;
    }
    return pfIsOfType(child, &groupType) && pfGetRef(group) > 0 && isBelow(group, static_cast<const pfGroup *>(child));
}

} // namespace

pfType *pfGetNodeClassType(void)
{
    return &nodeType;
}

pfType *pfGetGroupClassType(void)
{
    return &groupType;
}

pfType *pfGetGeodeClassType(void)
{
    return &geodeType;
}

int pfIsOfType(const void *object, pfType *type)
{
    return type != nullptr && pfIsBelow(pfTypeOf(__func__, object), type) ? 1 : 0;
}

pfGroup *pfNewGroup(void *arena)
{
    return newNode<pfGroup>(groupType, arena);
}

pfGeode *pfNewGeode(void *arena)
{
    return newNode<pfGeode>(geodeType, arena);
}

int pfAddChild(pfGroup *group, pfNode *child)
{
    if (!pfIsGiven(__func__, group, groupType) || !pfIsGiven(__func__, child, nodeType))
    {
        return 0;
    }
    try
    {
        if (closesCycle(group, child))
        {
            fprintf(stderr, "%s: %p is the group itself or above it\n", __func__, static_cast<void *>(child));
            return 0;
        }
    }
    catch (const std::bad_alloc &)
    {
        return 0;
    }
    return append(*group, child);
}

int pfRemoveChild(pfGroup *group, pfNode *child)
{
    const bool given = pfIsGiven(__func__, group, groupType) && pfIsGiven(__func__, child, nodeType);
    return given ? takeOut(*group, child) : 0;
}

int pfGetNumChildren(const pfGroup *group)
{
    return pfIsGiven(__func__, group, groupType) ? group->count : 0;
}

pfNode *pfGetChild(const pfGroup *group, int index)
{
    const bool given = pfIsGiven(__func__, group, groupType);
    return given ? static_cast<pfNode *>(heldAt(__func__, *group, index)) : nullptr;
}

int pfAddGSet(pfGeode *geode, pfGeoSet *gset)
{
    const bool given = pfIsGiven(__func__, geode, geodeType) && pfIsGiven(__func__, gset, pfGeoSetType);
    return given ? append(*geode, gset) : 0;
}

int pfRemoveGSet(pfGeode *geode, pfGeoSet *gset)
{
    const bool given = pfIsGiven(__func__, geode, geodeType) && pfIsGiven(__func__, gset, pfGeoSetType);
    return given ? takeOut(*geode, gset) : 0;
}

int pfGetNumGSets(const pfGeode *geode)
{
    return pfIsGiven(__func__, geode, geodeType) ? geode->count : 0;
}

pfGeoSet *pfGetGSet(const pfGeode *geode, int index)
{
    const bool given = pfIsGiven(__func__, geode, geodeType);
    return given ? static_cast<pfGeoSet *>(heldAt(__func__, *geode, index)) : nullptr;
}
