// Owners of what the application keeps in the shared arena.
#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <vector>

#include <tolvin/performer/pf.h>

namespace tolvin
{

// A reference to a node or GeoSet, which goes with the last one.
struct ReferenceRelease
{
    void operator()(void *object) const
    {
        pfUnref(object);
        pfDelete(object);
    }
};

template<typename Object>
using Held = std::unique_ptr<Object, ReferenceRelease>;

// Takes a reference to what was just made. Throws std::bad_alloc for null.
template<typename Object>
Held<Object> hold(Object *object)
{
    if (object == nullptr)
    {
        throw std::bad_alloc();
    }
    pfRef(object);
    return Held<Object>(object);
}

// Any kind of node as a node, and any kind of group as a group.
template<typename Node>
pfNode *asPfNode(Node *node)
{
    return reinterpret_cast<pfNode *>(node);
}

template<typename Group>
pfGroup *asPfGroup(Group *group)
{
    return reinterpret_cast<pfGroup *>(group);
}

// Throws std::bad_alloc when there is no room for it.
template<typename Group>
void addChild(Group *group, pfNode *child)
{
    if (pfAddChild(asPfGroup(group), child) != 1)
    {
        throw std::bad_alloc();
    }
}

// Lists that GeoSets point to.
class ArenaLists
{
public:
    // Throws std::bad_alloc when there is no room.
    template<typename Element>
    Element *make(std::size_t count)
    {
        std::unique_ptr<void, Free> block(pfMalloc(count * sizeof(Element), pfGetSharedArena()));
        if (block == nullptr)
        {
            throw std::bad_alloc();
        }
        blocks_.push_back(std::move(block));
        return static_cast<Element *>(blocks_.back().get());
    }

private:
    struct Free
    {
        void operator()(void *block) const
        {
            pfFree(block);
        }
    };

    std::vector<std::unique_ptr<void, Free>> blocks_;
};

} // namespace tolvin
