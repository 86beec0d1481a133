#include "pfnode.hpp"

#include "pfbox.hpp"
#include "pfgeoset.hpp"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <unordered_set>
#include <utility>
#include <vector>

// How a graph outlives a process that is killed while it edits it:
//
// What a node holds is linked both ways: held[i] of the node is the object, and entry entries[i] among the holders of the
// object is the node. The link counts as long as that entry says so, and a reference goes with it. Of a change in the
// middle, count first falls to where it begins, and rises when all is done. What a killed process leaves behind count is
// taken out by whoever edits or deletes the node next (settle, releaseNode), and nothing points to blocks that were
// released. At worst, the node loses what was behind the place of the change. Only the order of stores matters, as in
// pfmemory.cpp.

namespace
{

constexpr uint32_t kNoEntry = UINT32_MAX;

// What was stored before this is stored before what is stored after it, should the process be killed.
void inOrder()
{
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

pfHolders &holdersOf(const pfNode &holder, void *object)
{
    return holder.kind == NodeKind::Geode ? static_cast<pfGeoSet *>(object)->geodes
                                          : static_cast<pfNode *>(object)->parents;
}

void *arenaOf(const pfNode &holder, const void *object)
{
    return holder.kind == NodeKind::Geode ? static_cast<const pfGeoSet *>(object)->arena
                                          : static_cast<const pfNode *>(object)->arena;
}

// Make room for one more holder; false, and nothing changed, when there is none. Mostly there is one.
bool reserveEntry(pfHolders &holders, void *arena)
{
    if (holders.used < holders.capacity || holders.vacant.load() != 0)
    {
        return true;
    }
    using Entry = std::atomic<uintptr_t>;
    const size_t capacity = std::max<size_t>(1, 2 * size_t{holders.capacity});
    const bool possible = capacity <= std::min<size_t>(INT_MAX, PTRDIFF_MAX / sizeof(Entry));
    Entry *const grown = possible ? static_cast<Entry *>(pfMalloc(capacity * sizeof(Entry), arena)) : nullptr;
    if (grown == nullptr)
    {
        return false;
    }
    Entry *const old = holders.entries;
    for (size_t i = 0; i < capacity; ++i)
    {
        new (grown + i) Entry(i < holders.used ? old[i].load() : 0);
    }
    inOrder();
    holders.entries = grown;
    inOrder();
    pfFree(old);
    holders.capacity = static_cast<uint32_t>(capacity);
    return true;
}

// A vacant entry, for which there is room. One holder is added at a time, so what is first among the vacant ones stays so
// while others add to them.
uint32_t takeEntry(pfHolders &holders)
{
    uint32_t first = holders.vacant.load();
    while (first != 0)
    {
        const auto next = static_cast<uint32_t>(holders.entries[first - 1].load() / 2);
        if (holders.vacant.compare_exchange_strong(first, next))
        {
            return first - 1;
        }
    }
    return holders.used++;
}

void vacateEntry(pfHolders &holders, uint32_t entry)
{
    uint32_t first = holders.vacant.load();
    do
    {
        holders.entries[entry].store(2 * static_cast<uintptr_t>(first) + 1);
    } while (!holders.vacant.compare_exchange_weak(first, entry + 1));
}

// The object at a place of a node does not know the node any more. False when it did not anyway.
bool unlink(const pfNode &node, size_t index)
{
    pfHolders &holders = holdersOf(node, node.held[index]);
    const uint32_t entry = node.entries[index];
    if (entry >= holders.used || holders.entries[entry].load() != reinterpret_cast<uintptr_t>(&node))
    {
        return false;
    }
    vacateEntry(holders, entry);
    return true;
}

// The number of objects that were ever put into a node, and not taken out: not less than its count.
size_t extentOfHeld(const pfNode &node)
{
    auto end = static_cast<size_t>(node.count);
    while (end < node.capacity && node.held[end] != nullptr)
    {
        ++end;
    }
    return end;
}

// Take out what a killed process has left half done.
void settle(pfNode &node)
{
    for (size_t end = extentOfHeld(node); end > static_cast<size_t>(node.count); --end)
    {
        if (unlink(node, end - 1))
        {
            pfUnref(node.held[end - 1]);
        }
        node.held[end - 1] = nullptr;
        inOrder();
    }
}

// Make room for one more; false, and nothing changed, when there is none. The node never points to a block that was given
// back: held and entries are in one, and while one of them leads to the old one still, both have all that counts.
bool reserve(pfNode &node)
{
    settle(node);
    const auto count = static_cast<uint32_t>(node.count);
    if (count < node.capacity)
    {
        return true;
    }
    constexpr size_t kBytes = sizeof(void *) + sizeof(uint32_t);
    const size_t capacity = std::max<size_t>(2, 2 * size_t{node.capacity});
    const bool possible = capacity <= std::min<size_t>(INT_MAX, PTRDIFF_MAX / kBytes);
    void *memory = possible ? pfMalloc(capacity * kBytes, node.arena) : nullptr;
    if (memory == nullptr)
    {
        return false;
    }
    void **const old = node.held;
    void **const held = static_cast<void **>(memory);
    uint32_t *const entries = reinterpret_cast<uint32_t *>(held + capacity);
    std::fill(std::copy_n(old, count, held), held + capacity, nullptr);
    std::copy_n(node.entries, count, entries);
    inOrder();
    node.entries = entries;
    inOrder();
    node.held = held;
    inOrder();
    node.capacity = static_cast<uint32_t>(capacity);
    pfFree(old);
    return true;
}

// At a place that does not count. It never has an object with the entry of another one: that might be for a place that counts.
void setPlace(pfNode &node, int index, void *object, uint32_t entry)
{
    node.entries[index] = kNoEntry;
    inOrder();
    node.held[index] = object;
    inOrder();
    node.entries[index] = entry;
    inOrder();
}

// Put an object, for which there is room, to a place that does not count yet.
void link(pfNode &node, int index, void *object)
{
    pfHolders &holders = holdersOf(node, object);
    const uint32_t entry = takeEntry(holders);
    pfRef(object);
    setPlace(node, index, object, entry);
    holders.entries[entry].store(reinterpret_cast<uintptr_t>(&node));
}

void move(pfNode &node, int from, int to)
{
    setPlace(node, to, node.held[from], node.entries[from]);
}

int insert(pfNode &node, int index, void *object)
{
    if (!reserve(node) || !reserveEntry(holdersOf(node, object), arenaOf(node, object)))
    {
        return 0;
    }
    const pfBoxChange change(node);
    const int count = node.count;
    node.count = index;
    inOrder();
    for (int i = count; i > index; --i)
    {
        move(node, i - 1, i);
    }
    link(node, index, object);
    inOrder();
    node.count = count + 1;
    return 1;
}

// The reference stays with the caller.
void takeOut(pfNode &node, int index)
{
    settle(node);
    const pfBoxChange change(node);
    const int count = node.count;
    node.count = index;
    inOrder();
    unlink(node, static_cast<size_t>(index));
    for (int i = index + 1; i < count; ++i)
    {
        move(node, i, i - 1);
    }
    node.held[count - 1] = nullptr;
    inOrder();
    node.count = count - 1;
}

int find(const pfNode &node, const void *object)
{
    void *const *end = node.held + node.count;
    void *const *found = std::find(node.held, const_cast<void **>(end), const_cast<void *>(object));
    return found == end ? -1 : static_cast<int>(found - node.held);
}

int takeOutFirst(pfNode &node, void *object)
{
    const int index = find(node, object);
    if (index < 0)
    {
        return 0;
    }
    takeOut(node, index);
    pfUnref(object);
    return 1;
}

int replace(pfNode &node, int index, void *object)
{
    void *const old = node.held[index];
    settle(node);
    if (old == object)
    {
        return 1;
    }
    if (!reserveEntry(holdersOf(node, object), arenaOf(node, object)))
    {
        return 0;
    }
    const pfBoxChange change(node);
    const int count = node.count;
    node.count = index;
    inOrder();
    unlink(node, static_cast<size_t>(index));
    link(node, index, object);
    inOrder();
    node.count = count;
    pfUnref(old);
    return 1;
}

void releaseNode(void *object, pfDeletion &deletion)
{
    pfNode *node = static_cast<pfNode *>(object);
    pfReleaseHolders(node, node->parents);
    const size_t end = extentOfHeld(*node);
    for (size_t i = 0; i < end; ++i)
    {
        if (pfTypeOf("pfDelete", node->held[i]) != nullptr && unlink(*node, i))
        {
            pfGiveBack(node->held[i], deletion);
        }
    }
    pfFree(node->held);
    pfFree(node->name);
}

constinit pfType nodeType = {"pfNode", nullptr, releaseNode};
constinit pfType geodeType = {"pfGeode", &nodeType, nullptr};
constinit pfType sceneType = {"pfScene", &pfGroupType, nullptr};

bool isNumber(const char *function, int index, int count)
{
    const bool found = index >= 0 && index < count;
    if (!found)
    {
        fprintf(stderr, "%s: no number %d among %d\n", function, index, count);
    }
    return found;
}

void *heldAt(const char *function, const pfNode &node, int index)
{
    return isNumber(function, index, node.count) ? node.held[index] : nullptr;
}

// Nodes to visit, each once: there may be exponentially many paths to one.
class Visits
{
public:
    explicit Visits(pfNode &first) : open{&first}
    {
    }

    bool isOver() const
    {
        return open.empty();
    }

    pfNode &next()
    {
        pfNode *node = open.back();
        open.pop_back();
        return *node;
    }

    void add(pfNode &node)
    {
        if (seen.insert(&node).second)
        {
            open.push_back(&node);
        }
    }

private:
    std::unordered_set<const pfNode *> seen;
    std::vector<pfNode *> open;
};

bool hasParents(const pfNode &node)
{
    bool any = false;
    pfForEachHolder(node.parents, [&](const pfNode &) { any = true; });
    return any;
}

// Whether a group is below a node. Searches from both by turns: one of them is mostly near its end of the graph.
bool isBelow(pfGroup &group, pfNode &top)
{
    Visits down(top);
    Visits up(group);
    bool found = false;
    while (!found && !down.isOver() && !up.isOver())
    {
        const pfNode &node = down.next();
        for (pfNode *child :
             isGroup(node) ? childrenOf(static_cast<const pfGroup &>(node)) : std::span<pfNode *const>())
        {
            found = found || child == &group;
            down.add(*child);
        }
        pfForEachHolder(up.next().parents,
                        [&](pfNode &parent)
                        {
                            found = found || &parent == &top;
                            up.add(parent);
                        });
    }
    return found;
}

// Whether a group would be below itself if it got the child. Graphs that are built from one end cost no search.
bool closesCycle(pfGroup &group, pfNode &child)
{
    const bool possible = isGroup(child) && child.count > 0 && hasParents(group);
    return &child == &group || (possible && isBelow(group, child));
}

// Whether a child may come into a group; a report unless it is for want of memory.
bool isAllowed(const char *function, pfGroup *group, pfNode *child)
{
    if (!pfIsGiven(function, group, pfGroupType) || !pfIsGiven(function, child, nodeType))
    {
        return false;
    }
    try
    {
        const bool allowed = !closesCycle(*group, *child);
        if (!allowed)
        {
            fprintf(stderr, "%s: %p is the group itself or above it\n", function, static_cast<void *>(child));
        }
        return allowed;
    }
    catch (const std::bad_alloc &)
    {
        return false;
    }
}

unsigned int combined(unsigned int old, unsigned int mask, int bitOp)
{
    return bitOp == PF_SET ? mask : bitOp == PF_AND ? old & mask : old | mask;
}

bool isTraversal(const char *function, int which)
{
    const bool known = which >= PFTRAV_ISECT && which <= PFTRAV_DRAW;
    if (!known)
    {
        fprintf(stderr, "%s: %d is not a traversal\n", function, which);
    }
    return known;
}

// All nodes below one.
std::vector<pfNode *> nodesBelow(pfNode &top)
{
    std::vector<pfNode *> nodes;
    Visits visits(top);
    while (!visits.isOver())
    {
        pfNode &node = visits.next();
        if (&node != &top)
        {
            nodes.push_back(&node);
        }
        for (pfNode *child : isGroup(node) ? childrenOf(static_cast<pfGroup &>(node)) : std::span<pfNode *const>())
        {
            visits.add(*child);
        }
    }
    return nodes;
}

} // namespace

constinit pfType pfGroupType = {"pfGroup", &nodeType, nullptr};

void pfReleaseHolders(void *object, pfHolders &holders)
{
    pfForEachHolder(holders,
                    [&](pfNode &holder)
                    {
                        if (const int index = find(holder, object); index >= 0)
                        {
                            takeOut(holder, index);
                        }
                    });
    pfFree(holders.entries);
}

pfType *pfGetNodeClassType(void)
{
    return &nodeType;
}

pfType *pfGetGroupClassType(void)
{
    return &pfGroupType;
}

pfType *pfGetGeodeClassType(void)
{
    return &geodeType;
}

pfType *pfGetSceneClassType(void)
{
    return &sceneType;
}

int pfIsOfType(const void *object, pfType *type)
{
    return type != nullptr && pfIsBelow(pfTypeOf(__func__, object), type) ? 1 : 0;
}

pfType *pfGetType(const void *object)
{
    return const_cast<pfType *>(pfTypeOf(__func__, object));
}

const char *pfGetTypeName(const pfType *type)
{
    return type != nullptr ? type->name : nullptr;
}

pfGroup *pfNewGroup(void *arena)
{
    return pfMakeNode<pfGroup>(pfGroupType, NodeKind::Group, arena);
}

pfGeode *pfNewGeode(void *arena)
{
    return pfMakeNode<pfGeode>(geodeType, NodeKind::Geode, arena);
}

pfScene *pfNewScene(void *arena)
{
    return pfMakeNode<pfScene>(sceneType, NodeKind::Group, arena);
}

int pfNodeName(pfNode *node, const char *name)
{
    if (!pfIsGiven(__func__, node, nodeType))
    {
        return 0;
    }
    char *copy = nullptr;
    if (name != nullptr)
    {
        const size_t bytes = strlen(name) + 1;
        copy = static_cast<char *>(pfMalloc(bytes, node->arena));
        if (copy == nullptr)
        {
            return 0;
        }
        memcpy(copy, name, bytes);
    }
    inOrder();
    char *const old = std::exchange(node->name, copy);
    inOrder();
    pfFree(old);
    return 1;
}

const char *pfGetNodeName(const pfNode *node)
{
    return pfIsGiven(__func__, node, nodeType) ? node->name : nullptr;
}

int pfAddChild(pfGroup *group, pfNode *child)
{
    return isAllowed(__func__, group, child) ? insert(*group, group->count, child) : 0;
}

int pfInsertChild(pfGroup *group, int index, pfNode *child)
{
    if (!isAllowed(__func__, group, child))
    {
        return 0;
    }
    const bool atEnd = index == group->count;
    return atEnd || isNumber(__func__, index, group->count) ? insert(*group, index, child) : 0;
}

int pfReplaceChild(pfGroup *group, pfNode *old, pfNode *child)
{
    if (!isAllowed(__func__, group, child) || !pfIsGiven(__func__, old, nodeType))
    {
        return 0;
    }
    const int index = find(*group, old);
    return index >= 0 ? replace(*group, index, child) : 0;
}

int pfRemoveChild(pfGroup *group, pfNode *child)
{
    const bool given = pfIsGiven(__func__, group, pfGroupType) && pfIsGiven(__func__, child, nodeType);
    return given ? takeOutFirst(*group, child) : 0;
}

int pfSearchChild(const pfGroup *group, const pfNode *child)
{
    const bool given = pfIsGiven(__func__, group, pfGroupType) && pfIsGiven(__func__, child, nodeType);
    return given ? find(*group, child) : -1;
}

int pfGetNumChildren(const pfGroup *group)
{
    return pfIsGiven(__func__, group, pfGroupType) ? group->count : 0;
}

pfNode *pfGetChild(const pfGroup *group, int index)
{
    const bool given = pfIsGiven(__func__, group, pfGroupType);
    return given ? static_cast<pfNode *>(heldAt(__func__, *group, index)) : nullptr;
}

int pfGetNumParents(const pfNode *node)
{
    int count = 0;
    if (pfIsGiven(__func__, node, nodeType))
    {
        pfForEachHolder(node->parents, [&](const pfNode &) { ++count; });
    }
    return count;
}

pfGroup *pfGetParent(const pfNode *node, int index)
{
    if (!pfIsGiven(__func__, node, nodeType))
    {
        return nullptr;
    }
    pfNode *found = nullptr;
    int count = 0;
    pfForEachHolder(node->parents, [&](pfNode &parent) { found = count++ == index ? &parent : found; });
    return isNumber(__func__, index, count) ? static_cast<pfGroup *>(found) : nullptr;
}

int pfAddGSet(pfGeode *geode, pfGeoSet *gset)
{
    const bool given = pfIsGiven(__func__, geode, geodeType) && pfIsGiven(__func__, gset, pfGeoSetType);
    return given ? insert(*geode, geode->count, gset) : 0;
}

int pfRemoveGSet(pfGeode *geode, pfGeoSet *gset)
{
    const bool given = pfIsGiven(__func__, geode, geodeType) && pfIsGiven(__func__, gset, pfGeoSetType);
    return given ? takeOutFirst(*geode, gset) : 0;
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

void pfNodeTravMask(pfNode *node, int which, unsigned int mask, int setMode, int bitOp)
{
    if (!pfIsGiven(__func__, node, nodeType) || !isTraversal(__func__, which))
    {
        return;
    }
    const bool isMode = setMode != 0 && (setMode & ~(PFTRAV_SELF | PFTRAV_DESCEND)) == 0;
    if (!isMode || bitOp < PF_SET || bitOp > PF_OR)
    {
        fprintf(stderr, "%s: mode 0x%x with operation %d\n", __func__, static_cast<unsigned>(setMode), bitOp);
        return;
    }
    try
    {
        if ((setMode & PFTRAV_DESCEND) != 0)
        {
            for (pfNode *below : nodesBelow(*node))
            {
                below->masks[which] = combined(below->masks[which], mask, bitOp);
            }
        }
        if ((setMode & PFTRAV_SELF) != 0)
        {
            node->masks[which] = combined(node->masks[which], mask, bitOp);
        }
    }
    catch (const std::bad_alloc &)
    {
        fprintf(stderr, "%s: no memory to go through what is below\n", __func__);
    }
}

unsigned int pfGetNodeTravMask(const pfNode *node, int which)
{
    return pfIsGiven(__func__, node, nodeType) && isTraversal(__func__, which) ? node->masks[which] : 0;
}

int pfGetNodeBBox(pfNode *node, pfBox *box)
{
    pfBox found;
    if (!pfIsGiven(__func__, node, nodeType) || !pfBoxOf(*node, found))
    {
        return 0;
    }
    if (box != nullptr)
    {
        *box = found;
    }
    return 1;
}
