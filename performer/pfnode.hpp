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

inline bool isGroup(const pfNode &node)
{
    return node.kind != NodeKind::Geode;
}

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
