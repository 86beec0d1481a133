#include "pfbox.hpp"

#include "pfgeoset.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <new>
#include <vector>

namespace
{

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr pfBox kNothing = {{kInfinity, kInfinity, kInfinity}, {-kInfinity, -kInfinity, -kInfinity}};
constexpr pfBox kEverywhere = {{-kInfinity, -kInfinity, -kInfinity}, {kInfinity, kInfinity, kInfinity}};

void merge(pfBox &box, const pfBox &other)
{
    for (int axis = 0; axis < 3; ++axis)
    {
        box.min[axis] = std::min(box.min[axis], other.min[axis]);
        box.max[axis] = std::max(box.max[axis], other.max[axis]);
    }
}

// The next float below, or above, that a double does not get past; one further, so that it is never equal.
float below(double value)
{
    const auto near = static_cast<float>(value);
    return std::nextafter(near, -kInfinity);
}

float above(double value)
{
    const auto near = static_cast<float>(value);
    return std::nextafter(near, kInfinity);
}

// A box round a box that is transformed by a matrix. Intersection works in double precision with products and inverses of
// matrices, so its errors grow with the terms that cancel each other and with the condition of the matrices: there is
// room for many bits of that. What is not a number, or infinity less infinity, may be anywhere.
pfBox transformed(const pfBox &box, const pfMatrix matrix)
{
    constexpr double kRoom = 0x1p-40;
    pfBox result;
    for (int column = 0; column < 3; ++column)
    {
        double least = matrix[3][column];
        double greatest = least;
        double sum = std::fabs(least);
        for (int row = 0; row < 3; ++row)
        {
            const double factor = matrix[row][column];
            if (factor != 0.0)
            {
                const auto [from, to] = std::minmax({factor * box.min[row], factor * box.max[row]});
                least += from;
                greatest += to;
                sum += std::max(std::fabs(from), std::fabs(to));
            }
        }
        const bool known = least - sum * kRoom <= greatest + sum * kRoom;
        result.min[column] = known ? below(least - sum * kRoom) : -kInfinity;
        result.max[column] = known ? above(greatest + sum * kRoom) : kInfinity;
    }
    return result;
}

bool isForgotten(const pfKeptBox &kept)
{
    return kept.state.load() == pfKeptBox::Forgotten;
}

// Whether the box of anything in a node is forgotten.
bool hasForgotten(const pfNode &node)
{
    if (isGroup(node))
    {
        return std::ranges::any_of(childrenOf(static_cast<const pfGroup &>(node)),
                                   [](const pfNode *child) { return isForgotten(child->extent); });
    }
    return std::ranges::any_of(gsetsOf(static_cast<const pfGeode &>(node)),
                               [](const pfGeoSet *gset) { return isForgotten(gset->extent); });
}

// A node whose box is being computed, and how far that has come.
struct Open
{
    pfNode *node;
    int next = 0; // child
    bool any = false;
    pfBox box = kNothing;

    void add(const pfBox &other)
    {
        merge(box, other);
        any = true;
    }
};

// Add the boxes of GeoSets, and of children up to the first one that has to be computed before: returns that, or null.
pfNode *addHeld(Open &open)
{
    pfBox box;
    if (!isGroup(*open.node))
    {
        for (pfGeoSet *gset : gsetsOf(static_cast<const pfGeode &>(*open.node)))
        {
            if (pfExtentOf(*gset, box))
            {
                open.add(box);
            }
        }
        return nullptr;
    }
    for (; open.next < open.node->count; ++open.next)
    {
        pfNode *child = static_cast<pfNode *>(open.node->held[open.next]);
        const uint8_t state = child->extent.state.load(std::memory_order_acquire);
        if (state == pfKeptBox::Known)
        {
            open.add(child->extent.box);
        }
        else if (state != pfKeptBox::None)
        {
            ++open.next;
            return child;
        }
    }
    return nullptr;
}

// All has been added: the box of the node itself.
void close(Open &open)
{
    if (open.any && open.node->kind == NodeKind::Transform)
    {
        open.box = transformed(open.box, static_cast<const pfSCS *>(open.node)->matrix);
    }
    pfKeepBox(open.node->extent, open.any ? &open.box : nullptr, [&] { return hasForgotten(*open.node); });
}

// The box of the node, infinite where there is no memory to go on. Deep graphs need no stack for it.
Open compute(pfNode &top)
{
    std::vector<Open> path = {{.node = &top}};
    for (;;)
    {
        if (pfNode *child = addHeld(path.back()))
        {
            path.push_back({.node = child});
            continue;
        }
        close(path.back());
        const Open done = path.back();
        path.pop_back();
        if (path.empty())
        {
            return done;
        }
        if (done.any)
        {
            path.back().add(done.box);
        }
    }
}

// The next parent of a node, from an entry on, whose box is not forgotten; null when there is none.
pfNode *nextParent(const pfNode &node, uint32_t &entry)
{
    const pfHolders &parents = node.parents;
    while (entry < parents.used)
    {
        const uintptr_t value = parents.entries[entry++].load(std::memory_order_relaxed);
        pfNode *parent = value % 2 == 0 ? reinterpret_cast<pfNode *>(value) : nullptr;
        if (parent != nullptr && !isForgotten(parent->extent))
        {
            return parent;
        }
    }
    return nullptr;
}

} // namespace

// A node is forgotten after all above it, so that those above a forgotten one always are. This climbs without memory that
// could be wanting: of the way up it knows only the last steps, and starts anew where these do not suffice.
void pfForgetBox(pfNode &node)
{
    struct Step
    {
        pfNode *node;
        uint32_t entry;
    };
    constexpr unsigned kSteps = 64;
    Step steps[kSteps];
    unsigned level = 0;
    unsigned known = 0;
    Step step = {&node, 0};
    while (!isForgotten(node.extent))
    {
        if (pfNode *parent = nextParent(*step.node, step.entry))
        {
            steps[level++ % kSteps] = step;
            known = std::min(known + 1, kSteps);
            step = {parent, 0};
            continue;
        }
        step.node->extent.state.store(pfKeptBox::Forgotten);
        const bool back = known > 0;
        step = back ? steps[--level % kSteps] : Step{&node, 0};
        known -= back ? 1 : 0;
    }
}

bool pfComputeBox(pfNode &node, pfBox &box)
{
    try
    {
        const Open done = compute(node);
        if (done.any)
        {
            box = done.box;
        }
        return done.any;
    }
    catch (const std::bad_alloc &)
    {
        box = kEverywhere;
        return true;
    }
}
