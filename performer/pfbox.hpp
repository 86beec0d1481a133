// The boxes that nodes keep, private to the platform layer: computing and forgetting them.
#pragma once

#include "pfnode.hpp"

// The boxes of a node and of all above it are to be computed anew. Where a box is Forgotten, those above are.
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

// Compute the box of a node, and keep it; false when there is none. Boxes of transformed children are made a
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
