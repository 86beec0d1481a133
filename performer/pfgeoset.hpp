// What a GeoSet is made of, private to the platform layer.
#pragma once

#include "pfgeoset.h"
#include "pfhierarchy.hpp"
#include "pfnode.hpp"
#include "pftype.hpp"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <utility>
#include <vector>

constexpr int kGSetAttributes = PFGS_COORD3 + 1;

struct GSetAttribute
{
    int binding;
    void *elements;          // the caller's
    unsigned short *indices; // the caller's; null for elements in order
};

struct pfGeoSet
{
    void *arena;
    int type;
    int number;   // of primitives, not negative
    int *lengths; // the caller's
    GSetAttribute attributes[kGSetAttributes];
    pfGeoState *gstate; // a reference, or null
    pfBox box;          // of pfGSetBBox
    int boxMode;        // 0 when there is no box
    bool boxIsOld;      // something that it depends on was set

    pfHolders geodes; // that it is in
    pfKeptBox extent; // round all coordinates; what geodes ask for

    // Of its triangles: null until the first intersection, which may be several at once, in several processes. triangles
    // tells without a look at the lists whether there are any: kUnknown, kNone, kSome.
    std::atomic<pfHierarchy *> hierarchy;
    std::atomic<int> triangles;
    std::atomic<unsigned> asked; // how often, since there was no room
};

enum
{
    kUnknownTriangles,
    kNoTriangles,
    kSomeTriangles // and no hierarchy: there was no room for it
};

constexpr int kGSetVertices[] = {1, 2, 3, 4}; // of each primitive, up to PFGS_QUADS

inline int64_t pfVerticesOf(const pfGeoSet &gset, int prim)
{
    if (gset.type < PFGS_LINESTRIPS)
    {
        return kGSetVertices[gset.type];
    }
    return gset.lengths != nullptr && gset.lengths[prim] > 0 ? gset.lengths[prim] : 0;
}

// Whether the corners are finite and not on one line, without rounding.
bool pfIsTriangle(const pfTriangle &triangle);

// Calls visit(pfTriangle) for all triangles with finite corners and an area, in order of the primitives, counter-clockwise as
// the primitives are.
template<typename Visit>
void pfForEachTriangle(const pfGeoSet &gset, Visit visit)
{
    const GSetAttribute &list = gset.attributes[PFGS_COORD3];
    const auto *points = static_cast<const pfVec3 *>(list.elements);
    const bool isStrip = gset.type == PFGS_TRISTRIPS;
    const bool isArea = gset.type >= PFGS_TRIS && gset.type != PFGS_LINESTRIPS;
    if (!isArea || list.binding == PFGS_OFF || points == nullptr)
    {
        return;
    }
    pfTriangle triangle;
    const auto setCorner = [&](int corner, int64_t vertex)
    { std::copy_n(points[list.indices != nullptr ? list.indices[vertex] : vertex], 3, triangle.corners[corner]); };
    int64_t first = 0;
    for (int prim = 0; prim < gset.number; ++prim)
    {
        const int64_t count = pfVerticesOf(gset, prim);
        triangle.prim = static_cast<uint32_t>(prim);
        for (int64_t i = 2; i < count; ++i)
        {
            // In strips, every other triangle runs the other way; the rest is fans.
            const int64_t turned = isStrip ? i % 2 : 0;
            setCorner(0, first + (isStrip ? i - 2 + turned : 0));
            setCorner(1, first + i - 1 - turned);
            setCorner(2, first + i);
            if (pfIsTriangle(triangle))
            {
                visit(std::as_const(triangle));
            }
        }
        first += count;
    }
}

// All of them. Throws std::bad_alloc.
std::vector<pfTriangle> pfTrianglesOf(const pfGeoSet &gset);

// The hierarchy, built when there is none; null when there are no triangles, or no room (triangles tells which).
const pfHierarchy *pfHierarchyOf(pfGeoSet &gset);

// The box round all coordinates; false when there is none.
bool pfExtentOf(pfGeoSet &gset, pfBox &box);
