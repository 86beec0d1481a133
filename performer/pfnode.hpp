// What nodes are made of, private to the platform layer: for the modules of the kinds of nodes, and for traversals.
#pragma once

#include "pfnode.h"
#include "pftransform.h"
#include "pftype.hpp"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>
#include <span>

constexpr int kTraversals = PFTRAV_DRAW + 1;

// What kind of node it is, for traversals that visit many of them and cannot afford to follow chains of types.
enum class NodeKind : uint8_t
{
    Geode,
    Group, // and all its kinds that have nothing to say about which children count, or where they are
    Transform,
    Switch,
    Lod
};

// A box that is computed when it is asked for and kept until it is forgotten. Several threads and processes may ask at once:
// one of them keeps what all of them compute.
struct pfKeptBox
{
    enum State : uint8_t
    {
        Forgotten,
        Computing, // somebody is about to keep it
        None,      // there is nothing to have a box round
        Known
    };

    std::atomic<uint8_t> state;
    pfBox box; // right when it is Known
};

// The nodes that hold an object, as often as they hold it; no references. An entry stays where it is until its holder, which
// knows its number, takes it out, so nothing is searched, and several holders may be deleted at once: by several processes, too.
struct pfHolders
{
    std::atomic<uintptr_t>
        *entries;  // a pfNode *; or 2 n + 1 for a vacant one, after which entry n - 1 is the next; or 0
    uint32_t used; // those after that are 0
    uint32_t capacity;
    std::atomic<uint32_t> vacant; // the first vacant entry + 1; 0 for none
};

// What a traversal looks at comes first, in one line of the cache.
struct pfNode
{
    pfKeptBox extent; // in coordinates of the parents
    NodeKind kind;
    unsigned int masks[kTraversals];
    void **held; // children or GeoSets, a reference to each
    int count;
    uint32_t capacity; // what is not null behind count is being put there or taken out, or was when its process died
    uint32_t *entries; // in the block of held: numbers of the entries for this node among their holders
    pfHolders parents;
    char *name;
    void *arena; // of the node and of its blocks
};

struct pfGroup : pfNode
{
};

struct pfGeode : pfNode
{
};

struct pfScene : pfGroup
{
};

struct pfSCS : pfGroup
{
    pfMatrix matrix;
};

struct pfDCS : pfSCS
{
};

struct pfSwitch : pfGroup
{
    int value;
};

struct pfLOD : pfGroup
{
    float *ranges;
    int rangeCount;
    size_t rangeCapacity;
    pfVec3 center;
};

// In pfnode.cpp: parents of the types of other modules.
extern pfType pfGroupType;

inline std::span<pfNode *const> childrenOf(const pfGroup &group)
{
    return {reinterpret_cast<pfNode *const *>(group.held), static_cast<size_t>(group.count)};
}

inline std::span<pfGeoSet *const> gsetsOf(const pfGeode &geode)
{
    return {reinterpret_cast<pfGeoSet *const *>(geode.held), static_cast<size_t>(geode.count)};
}

template<typename Visit>
void pfForEachHolder(const pfHolders &holders, Visit visit)
{
    for (uint32_t i = 0; i < holders.used; ++i)
    {
        const uintptr_t entry = holders.entries[i].load(std::memory_order_relaxed);
        if (entry != 0 && entry % 2 == 0)
        {
            visit(*reinterpret_cast<pfNode *>(entry));
        }
    }
}

// In pfnode.cpp: an object that is deleted is in no group and no geode any more, even if it lost its references otherwise.
void pfReleaseHolders(void *object, pfHolders &holders);

// In pfnode.cpp: the boxes of a node and of all above it are to be computed anew. Where a box is Forgotten, those above are.
void pfForgetBox(pfNode &node);

// Stands for a change of what the box of a node depends on. The box is forgotten before it, so that it is even if the process
// dies in between, and after it, in case somebody asked for the box meanwhile.
class pfBoxChange
{
public:
    explicit pfBoxChange(pfNode &changed) : node(changed)
    {
        pfForgetBox(node);
    }
    ~pfBoxChange()
    {
        pfForgetBox(node);
    }
    pfBoxChange(const pfBoxChange &) = delete;
    pfBoxChange &operator=(const pfBoxChange &) = delete;

private:
    pfNode &node;
};

// Keep a box that was computed, or, for null, that there is none, unless somebody else is about to. isOld tells whether what it
// was computed from has changed since. A process that dies in here leaves a box that is computed again and again until
// something changes, which takes time and does no harm.
template<typename IsOld>
void pfKeepBox(pfKeptBox &kept, const pfBox *box, IsOld isOld)
{
    uint8_t state = pfKeptBox::Forgotten;
    if (!kept.state.compare_exchange_strong(state, pfKeptBox::Computing))
    {
        return;
    }
    if (box != nullptr)
    {
        kept.box = *box;
    }
    const uint8_t next = isOld() ? pfKeptBox::Forgotten : box != nullptr ? pfKeptBox::Known : pfKeptBox::None;
    state = pfKeptBox::Computing;
    kept.state.compare_exchange_strong(state, next);
}

// In pfnode.cpp: compute the box of a node, and keep it; false when there is none. Boxes of transformed children are made a
// little larger than rounding can make them too small. Without memory for the work it is infinite, and not kept.
bool pfComputeBox(pfNode &node, pfBox &box);

// The box of a node in coordinates of its parents; false when there is none.
inline bool pfBoxOf(pfNode &node, pfBox &box)
{
    switch (node.extent.state.load(std::memory_order_acquire))
    {
    case pfKeptBox::Known:
        box = node.extent.box;
        return true;
    case pfKeptBox::None:
        return false;
    default:
        return pfComputeBox(node, box);
    }
}

// A new node of a type; null when there is no room.
template<typename Node>
Node *pfMakeNode(const pfType &type, NodeKind kind, void *arena)
{
    void *memory = pfMalloc(sizeof(Node), arena);
    if (memory == nullptr)
    {
        return nullptr;
    }
    pfSetType(memory, type);
    Node *node = new (memory) Node{};
    node->arena = arena;
    node->kind = kind;
    for (unsigned int &mask : node->masks)
    {
        mask = ~0U;
    }
    return node;
}
