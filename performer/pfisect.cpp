#ifndef __clang__
// Otherwise numbers that were stored one by one are read two at once, which has to wait until both stores are done.
#pragma GCC optimize("no-tree-slp-vectorize")
#endif

#include "pfisect.h"

#include "pfbox.hpp"
#include "pfgeoset.hpp"
#include "pfswitch.h"

#include <algorithm>
#include <bit>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <new>
#include <span>
#include <tuple>
#include <vector>

// Before a loop over axes that every segment comes to.
#ifdef __clang__
#define UNROLL _Pragma("unroll")
#else
#define UNROLL _Pragma("GCC unroll 3")
#endif

struct pfHit
{
    // Nothing is set: that is done at once where one is made.
    pfHit()
    {
    }

    pfTriangleHit where; // in coordinates of the GeoSet
    pfSeg segment;
    int number;
    bool wantsNormal;
    pfGeoSet *gset;
    pfGeode *geode;
    void *userData;
    pfMatrix toWorld;
};

namespace
{

// A coordinate system on the way down, and the segment in it. The segment keeps its parameter, so that distances are those
// in the world.
struct Place
{
    double toWorld[4][3]; // the last column is not needed
    pfLocalSegment segment;
    double inverse[3]; // of the components of its direction
};

// Children of a node that are still to be visited.
struct Step
{
    // For emplace_back: a step that is copied as soon as it was written has to wait for its own bytes.
    Step(std::span<pfNode *const> children, bool isPlaced)
        : next(children.data()),
          end(children.data() + children.size()),
          hasPlace(isPlaced)
    {
    }

    pfNode *const *next;
    pfNode *const *end;
    bool hasPlace; // of its own, which goes with it
};

// What an intersection needs; of a thread, so that the next one finds its memory.
struct Work
{
    bool isBusy;
    const pfType *nodeType;
    const pfSegSet *set;

    // The segment that is being intersected.
    int number;
    double least; // what is left of it
    double most;
    bool isOver;
    size_t firstHit;
    std::vector<Step> steps;
    std::vector<Place> places;
    std::vector<pfTriangleHit> found; // in one GeoSet

    bool isShortOfMemory;
    std::vector<pfHit> hits;       // of one segment after the other
    std::vector<pfHit *> pointers; // has room for all hits, and a null for each segment
    pfHit *none;                   // an empty array

    // The hit of a segment that needs no more, in the world, and its array.
    pfHit only;
    pfHit *onlyOne[2];
};

constexpr pfMatrix kIdentity = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}};
constexpr Place kWorld = {{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {0, 0, 0}}, {}, {}};

bool isFinite(std::span<const double, 3> vector)
{
    return std::isfinite(vector[0]) && std::isfinite(vector[1]) && std::isfinite(vector[2]);
}

// Sets the inverse, and makes components of the direction 0 that move nothing on any length but whose inverse would overflow.
void settleDirection(Place &place)
{
    constexpr double kNothing = 1e-290;
    UNROLL
    for (int axis = 0; axis < 3; ++axis)
    {
        const double component = place.segment.direction[axis];
        const bool moves = !(std::fabs(component) < kNothing);
        place.segment.direction[axis] = moves ? component : 0.0;
        place.inverse[axis] = moves ? 1.0 / component : 0.0;
    }
}

// Whether the segment comes to a box: an interval of it for each pair of sides. Bounds of an interval are wrong by 3 roundings
// at most, for which the slack makes up; the sign of the far one is right, and the near one does not go below 0.
inline bool meets(const pfBox &box, const Place &place, double least, double most)
{
    constexpr double kSlack = 1.0 + 16.0 * DBL_EPSILON;
    const pfLocalSegment &segment = place.segment;
    UNROLL
    for (int axis = 0; axis < 3; ++axis)
    {
        const double below = box.min[axis] - segment.origin[axis];
        const double above = box.max[axis] - segment.origin[axis];
        if (segment.direction[axis] == 0.0)
        {
            if (below > 0.0 || above < 0.0)
            {
                return false;
            }
            continue;
        }
        const double first = below * place.inverse[axis];
        const double second = above * place.inverse[axis];
        least = std::max(least, std::min(first, second));
        most = std::min(most, std::max(first, second));
    }
    return least <= most * kSlack;
}

// Of differences of floats, or of floats, when each product is exact.
void cross(double (&to)[3], const double (&a)[3], const double (&b)[3])
{
    for (int axis = 0; axis < 3; ++axis)
    {
        const int next = (axis + 1) % 3, last = (axis + 2) % 3;
        to[axis] = a[next] * b[last] - a[last] * b[next];
    }
}

double dot(const double (&a)[3], const double (&b)[3])
{
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

// The inverse of the upper three rows of a matrix, times its determinant: columns of cofactors, so that zeros stay zeros and a
// turn about z leaves vertical segments vertical. Returns the determinant; 0 when it is not more than its own rounding, which
// the sum of the magnitudes of its six products bounds, or not finite.
double invert(const double (&rows)[4][3], double (&columns)[3][3])
{
    double magnitude = 0.0;
    for (int axis = 0; axis < 3; ++axis)
    {
        const int next = (axis + 1) % 3, last = (axis + 2) % 3;
        cross(columns[axis], rows[next], rows[last]);
        magnitude += std::fabs(rows[0][axis]) *
                     (std::fabs(rows[1][next] * rows[2][last]) + std::fabs(rows[1][last] * rows[2][next]));
    }
    const double determinant = dot(rows[0], columns[0]);
    const bool isSafe = std::fabs(determinant) > 4.0 * DBL_EPSILON * magnitude && std::isfinite(magnitude);
    return isSafe ? determinant : 0.0;
}

// The place below a matrix; false when it cannot be inverted, or takes the segment out of all bounds.
bool placeBelow(const pfMatrix &matrix, const Place &above, Place &below)
{
    double rows[4][3];
    for (int row = 0; row < 4; ++row)
    {
        std::copy_n(matrix[row], 3, rows[row]);
    }
    double columns[3][3];
    const double determinant = invert(rows, columns);
    if (determinant == 0.0)
    {
        return false;
    }
    const pfLocalSegment &from = above.segment;
    const double offset[3] = {from.origin[0] - rows[3][0], from.origin[1] - rows[3][1], from.origin[2] - rows[3][2]};
    for (int axis = 0; axis < 3; ++axis)
    {
        below.segment.origin[axis] = dot(offset, columns[axis]) / determinant;
        below.segment.direction[axis] = dot(from.direction, columns[axis]) / determinant;
        for (int row = 0; row < 4; ++row)
        {
            below.toWorld[row][axis] = rows[row][0] * above.toWorld[0][axis] + rows[row][1] * above.toWorld[1][axis] +
                                       rows[row][2] * above.toWorld[2][axis];
        }
        below.toWorld[3][axis] += above.toWorld[3][axis];
    }
    settleDirection(below);
    return isFinite(below.segment.origin) && isFinite(below.segment.direction);
}

// The children that count. A LOD counts with its finest one.
std::span<pfNode *const> countingChildren(const pfGroup &group)
{
    const std::span<pfNode *const> children = childrenOf(group);
    if (group.kind == NodeKind::Lod)
    {
        return children.first(std::min<size_t>(children.size(), 1));
    }
    if (group.kind != NodeKind::Switch)
    {
        return children;
    }
    const int value = static_cast<const pfSwitch &>(group).value;
    if (value == PFSWITCH_ON)
    {
        return children;
    }
    return value >= 0 && value < group.count ? children.subspan(static_cast<size_t>(value), 1) : children.first(0);
}

// All but where it is.
inline void setHit(pfHit &hit, const pfSegSet &set, int number, pfGeode &geode, pfGeoSet &gset)
{
    hit.segment = set.segs[number];
    hit.number = number;
    hit.wantsNormal = (set.mode & PFTRAV_IS_NORM) != 0;
    hit.gset = &gset;
    hit.geode = &geode;
    hit.userData = set.userData;
}

void setHit(pfHit &hit, const Work &work, pfGeode &geode, pfGeoSet &gset)
{
    setHit(hit, *work.set, work.number, geode, gset);
    if (work.places.size() == 1)
    {
        std::memcpy(hit.toWorld, kIdentity, sizeof kIdentity);
        return;
    }
    const auto &matrix = work.places.back().toWorld;
    for (int row = 0; row < 4; ++row)
    {
        for (int column = 0; column < 3; ++column)
        {
            hit.toWorld[row][column] = static_cast<float>(matrix[row][column]);
        }
        hit.toWorld[row][3] = row == 3 ? 1.0F : 0.0F;
    }
}

// Room for one more hit; false when there is none.
bool makeRoom(Work &work)
{
    if (work.hits.size() < work.hits.capacity())
    {
        return true;
    }
    try
    {
        const size_t capacity = std::max<size_t>(PFIS_MAX_SEGS, 2 * work.hits.capacity());
        work.pointers.reserve(capacity + PFIS_MAX_SEGS);
        work.hits.reserve(capacity);
        return true;
    }
    catch (const std::exception &) // a vector also ends at its greatest size
    {
        work.isShortOfMemory = true;
        return false;
    }
}

// A place for a hit at a distance; that of the farthest one of its segment when there is no room for another. Null when
// none is farther.
pfHit *newHit(Work &work, double t)
{
    if (!makeRoom(work))
    {
        const auto isNearer = [](const pfHit &a, const pfHit &b) { return a.where.t < b.where.t; };
        const auto farthest =
            std::max_element(work.hits.begin() + static_cast<ptrdiff_t>(work.firstHit), work.hits.end(), isNearer);
        if (farthest == work.hits.end() || !(t < farthest->where.t))
        {
            return nullptr;
        }
        work.hits.erase(farthest);
    }
    return &work.hits.emplace_back();
}

// The same, but only the nearest one stays, and ends the segment.
pfHit *newNearest(Work &work, double t)
{
    work.most = t;
    if (work.hits.size() == work.firstHit)
    {
        return newHit(work, t);
    }
    return t < work.hits.back().where.t ? &work.hits.back() : nullptr;
}

void keepHit(Work &work, pfGeode &geode, pfGeoSet &gset, const pfTriangleHit &where)
{
    const bool isNearest = (work.set->mode & PFTRAV_IS_NEAREST) != 0;
    pfHit *hit = isNearest ? newNearest(work, where.t) : newHit(work, where.t);
    if (hit != nullptr)
    {
        hit->where = where;
        setHit(*hit, work, geode, gset);
    }
}

// Whether there is still something to do in this GeoSet.
bool takeHit(Work &work, pfGeode &geode, pfGeoSet &gset, const pfTriangleHit &where)
{
    if (work.set->discFunc == nullptr)
    {
        keepHit(work, geode, gset, where);
        return true;
    }
    pfHit hit;
    hit.where = where;
    setHit(hit, work, geode, gset);
    const int verdict = work.set->discFunc(&hit);
    if ((verdict & PFTRAV_IS_IGNORE) == 0)
    {
        keepHit(work, geode, gset, where);
    }
    work.least = (verdict & PFTRAV_IS_CLIP_START) != 0 ? where.t : work.least;
    work.most = (verdict & PFTRAV_IS_CLIP_END) != 0 ? where.t : work.most;
    work.isOver = (verdict & PFTRAV_TERM) != 0;
    return (verdict & (PFTRAV_PRUNE | PFTRAV_TERM)) == 0;
}

// Nearest first; among equals in order of the primitives, then in some order that depends on the triangles alone.
bool comesBefore(const pfTriangleHit &a, const pfTriangleHit &b)
{
    const auto keyOf = [](const pfTriangleHit &hit) { return std::tie(hit.t, hit.triangle.prim); };
    return keyOf(a) < keyOf(b) ||
           (keyOf(a) == keyOf(b) && std::memcmp(a.triangle.corners, b.triangle.corners, sizeof a.triangle.corners) < 0);
}

// Calls visit for all hits in a GeoSet without hierarchy.
template<typename Visit>
void testAll(const pfGeoSet &gset, const pfLocalSegment &segment, Visit visit)
{
    const auto test = [&](const pfTriangle &triangle)
    {
        pfTriangleHit hit;
        if (pfHitTriangle(triangle, segment, hit) && hit.t >= segment.least && hit.t <= segment.most)
        {
            visit(hit);
        }
    };
    pfForEachTriangle(gset, test);
}

bool findNearest(const pfGeoSet &gset, const pfHierarchy *hierarchy, const pfLocalSegment &segment,
                 pfTriangleHit &nearest)
{
    if (hierarchy != nullptr)
    {
        return pfNearestHit(*hierarchy, segment, nearest);
    }
    bool any = false;
    const auto compare = [&](const pfTriangleHit &hit)
    {
        if (!any || comesBefore(hit, nearest))
        {
            nearest = hit;
            any = true;
        }
    };
    testAll(gset, segment, compare);
    return any;
}

// All hits in a GeoSet, nearest first; false when there is no room for them.
bool findAll(Work &work, const pfGeoSet &gset, const pfHierarchy *hierarchy, const pfLocalSegment &segment)
{
    work.found.clear();
    try
    {
        if (hierarchy != nullptr)
        {
            pfAllHits(*hierarchy, segment, work.found);
        }
        else
        {
            testAll(gset, segment, [&](const pfTriangleHit &hit) { work.found.push_back(hit); });
        }
    }
    catch (const std::exception &)
    {
        work.isShortOfMemory = true;
        return false;
    }
    std::sort(work.found.begin(), work.found.end(), comesBefore);
    return true;
}

bool isLeft(const Work &work, const pfTriangleHit &hit)
{
    return hit.t >= work.least && hit.t <= work.most;
}

// The nearest hit of the segment, sought where it is to stay: a hit that is copied as soon as it was written has to wait for
// its own bytes.
void findFirst(Work &work, pfGeode &geode, pfGeoSet &gset, const pfHierarchy *hierarchy, const pfLocalSegment &segment)
{
    pfHit &hit = work.hits.emplace_back();
    if (!findNearest(gset, hierarchy, segment, hit.where))
    {
        work.hits.pop_back();
        return;
    }
    work.most = hit.where.t;
    setHit(hit, work, geode, gset);
}

void intersectGSet(Work &work, pfGeode &geode, pfGeoSet &gset)
{
    const pfHierarchy *hierarchy = gset.hierarchy.load(std::memory_order_acquire);
    hierarchy = hierarchy != nullptr ? hierarchy : pfHierarchyOf(gset);
    if (hierarchy == nullptr && gset.triangles.load(std::memory_order_acquire) != kSomeTriangles)
    {
        return;
    }
    pfLocalSegment &segment = work.places.back().segment;
    segment.least = work.least;
    segment.most = work.most;
    pfTriangleHit hit;
    if (work.set->discFunc == nullptr && (work.set->mode & PFTRAV_IS_NEAREST) != 0)
    {
        if (work.hits.size() == work.firstHit && makeRoom(work))
        {
            findFirst(work, geode, gset, hierarchy, segment);
            return;
        }
        const bool any = findNearest(gset, hierarchy, segment, hit);
        if (any && (work.hits.size() == work.firstHit || hit.t < work.hits.back().where.t))
        {
            takeHit(work, geode, gset, hit);
        }
        return;
    }
    if (findAll(work, gset, hierarchy, segment))
    {
        for (const pfTriangleHit &each : work.found)
        {
            if (isLeft(work, each) && !takeHit(work, geode, gset, each))
            {
                break;
            }
        }
        return;
    }
    // One by one; of those at the same distance, one.
    while (segment.least <= work.most && findNearest(gset, hierarchy, segment, hit))
    {
        if (isLeft(work, hit) && !takeHit(work, geode, gset, hit))
        {
            break;
        }
        segment.least = std::max(work.least, std::nextafter(hit.t, std::numeric_limits<double>::infinity()));
    }
}

void intersectGeode(Work &work, pfGeode &geode)
{
    const std::span<pfGeoSet *const> gsets = gsetsOf(geode);
    const bool isInBox = gsets.size() == 1; // it is that of the geode
    for (pfGeoSet *gset : gsets)
    {
        pfBox box;
        if (isInBox || (pfExtentOf(*gset, box) && meets(box, work.places.back(), work.least, work.most)))
        {
            intersectGSet(work, geode, *gset);
        }
        if (work.isOver)
        {
            return;
        }
    }
}

// Go on with the children of a group.
void enter(Work &work, const pfGroup &group)
{
    const std::span<pfNode *const> children = countingChildren(group);
    const bool hasPlace = group.kind == NodeKind::Transform;
    const auto depth = static_cast<ptrdiff_t>(work.steps.size());
    try
    {
        work.steps.emplace_back(children, hasPlace);
        if (hasPlace)
        {
            work.places.emplace_back();
        }
    }
    catch (const std::exception &)
    {
        work.steps.erase(work.steps.begin() + depth, work.steps.end());
        work.isShortOfMemory = true;
        return;
    }
    if (hasPlace && !placeBelow(static_cast<const pfSCS &>(group).matrix, work.places.end()[-2], work.places.back()))
    {
        work.places.pop_back();
        work.steps.pop_back();
    }
}

// Whether a part of the segment may hit something below a node.
inline bool mayHit(pfNode &node, unsigned int mask, const Place &place, double least, double most)
{
    pfBox box;
    return (node.masks[PFTRAV_ISECT] & mask) != 0 && pfBoxOf(node, box) && meets(box, place, least, most);
}

bool mayHit(const Work &work, pfNode &node)
{
    return mayHit(node, work.set->isectMask, work.places.back(), work.least, work.most);
}

// The next node of which that is so; null when there is none left.
pfNode *nextNode(const Work &work, Step &step)
{
    for (pfNode *const *next = step.next; next != step.end; ++next)
    {
        if (mayHit(work, **next))
        {
            step.next = next + 1;
            return *next;
        }
    }
    return nullptr;
}

// Down through groups with one child, whose boxes are their own; null when a mask ends it.
pfNode *skipOnlyChildren(pfNode *node, unsigned int mask)
{
    while (node != nullptr && node->kind == NodeKind::Group && node->count == 1)
    {
        pfNode *child = childrenOf(static_cast<pfGroup &>(*node))[0];
        node = (child->masks[PFTRAV_ISECT] & mask) != 0 ? child : nullptr;
    }
    return node;
}

// Visit what the segment comes to.
void visit(Work &work, pfNode &met)
{
    pfNode *const node = skipOnlyChildren(&met, work.set->isectMask);
    if (node == nullptr)
    {
        return;
    }
    if (node->kind == NodeKind::Geode)
    {
        intersectGeode(work, static_cast<pfGeode &>(*node));
    }
    else
    {
        enter(work, static_cast<const pfGroup &>(*node));
    }
}

// Not recursive: graphs may be deeper than the stack.
void traverse(Work &work, pfNode &top)
{
    if (mayHit(work, top))
    {
        visit(work, top);
    }
    while (!work.steps.empty() && !work.isOver)
    {
        pfNode *next = nextNode(work, work.steps.back());
        if (next == nullptr)
        {
            if (work.steps.back().hasPlace)
            {
                work.places.pop_back();
            }
            work.steps.pop_back();
        }
        else
        {
            visit(work, *next);
        }
    }
}

// The segment in the world; false when there is nothing to intersect.
inline bool placeInWorld(const pfSeg &segment, Place &world)
{
    double sum = segment.length; // of floats: finite when they are
    UNROLL
    for (int axis = 0; axis < 3; ++axis)
    {
        world.segment.origin[axis] = segment.pos[axis];
        world.segment.direction[axis] = segment.dir[axis];
        sum += world.segment.origin[axis] + world.segment.direction[axis];
    }
    const bool isFinite = std::isfinite(sum);
    settleDirection(world);
    return segment.length >= 0.0F && isFinite;
}

// Begin in the world; false when there is nothing to intersect.
bool start(Work &work, int number)
{
    const pfSeg &segment = work.set->segs[number];
    work.number = number;
    work.least = 0.0;
    work.most = segment.length;
    work.firstHit = work.hits.size();
    work.steps.clear();
    work.places.erase(work.places.begin() + 1, work.places.end());
    return placeInWorld(segment, work.places.back());
}

// The hits from first up to last as an array. Their addresses tell in which order they were found.
pfHit **arrayOf(Work &work, size_t first, size_t last)
{
    if (first == last)
    {
        return &work.none;
    }
    const size_t start = work.pointers.size();
    for (size_t i = first; i < last; ++i)
    {
        work.pointers.push_back(&work.hits[i]);
    }
    const auto comesFirst = [](const pfHit *a, const pfHit *b)
    { return a->where.t < b->where.t || (a->where.t == b->where.t && a < b); };
    if (last - first > 1)
    {
        std::sort(work.pointers.begin() + static_cast<ptrdiff_t>(start), work.pointers.end(), comesFirst);
    }
    work.pointers.push_back(nullptr);
    return &work.pointers[start];
}

template<typename Visit>
void forEachActive(const pfSegSet &set, Visit visit)
{
    for (unsigned int left = set.activeMask; left != 0; left &= left - 1)
    {
        visit(std::countr_zero(left));
    }
}

// One segment after the other; the arrays when the hits do not move any more.
int intersect(Work &work, pfNode *top, pfHit **hits[])
{
    size_t ends[PFIS_MAX_SEGS];
    const auto find = [&](int i)
    {
        if (!work.isOver && start(work, i))
        {
            traverse(work, *top);
        }
        ends[i] = work.hits.size();
    };
    forEachActive(*work.set, find);
    int count = 0;
    size_t first = 0;
    const auto list = [&](int i)
    {
        count += ends[i] > first ? 1 : 0;
        hits[i] = arrayOf(work, first, ends[i]);
        first = ends[i];
    };
    forEachActive(*work.set, list);
    return count;
}

// What is asked most, for the ground below: the nearest hit of one segment, without a callback, where all ways lead to one
// GeoSet in the world. It needs none of the lists. False where it is not so.
bool intersectAtOnce(Work &work, const pfSegSet &set, pfNode &top, pfHit **hits[], int &count)
{
    constexpr int kMode = PFTRAV_IS_PRIM | PFTRAV_IS_NEAREST;
    if (set.discFunc != nullptr || (set.mode & kMode) != kMode || set.activeMask == 0 ||
        (set.activeMask & (set.activeMask - 1)) != 0)
    {
        return false;
    }
    pfNode *const node = skipOnlyChildren(&top, set.isectMask);
    if (node == nullptr || node->kind != NodeKind::Geode || node->count != 1)
    {
        return false;
    }
    auto &geode = static_cast<pfGeode &>(*node);
    pfGeoSet &gset = *gsetsOf(geode)[0];
    const pfHierarchy *hierarchy = gset.hierarchy.load(std::memory_order_acquire);
    if (hierarchy == nullptr)
    {
        return false;
    }
    const int number = std::countr_zero(set.activeMask);
    Place place;
    place.segment.least = 0.0;
    place.segment.most = set.segs[number].length;
    pfHit &hit = work.only;
    count = placeInWorld(set.segs[number], place) &&
            mayHit(top, set.isectMask, place, place.segment.least, place.segment.most) &&
            pfNearestHit(*hierarchy, place.segment, hit.where);
    setHit(hit, set, number, geode, gset);
    work.onlyOne[0] = count != 0 ? &hit : nullptr;
    work.onlyOne[1] = nullptr;
    hits[number] = work.onlyOne;
    return true;
}

// Through a pointer in the thread's own block: anything else that a library has of a thread takes a call.
Work &workOfThread()
{
    [[gnu::tls_model("initial-exec")]] static thread_local Work *known;
    if (known == nullptr)
    {
        static thread_local Work work;
        work.nodeType = pfGetNodeClassType();
        std::memcpy(work.only.toWorld, kIdentity, sizeof kIdentity);
        known = &work;
    }
    return *known;
}

// Give back what the last intersection found, and begin another.
void reset(Work &work, const pfSegSet &set)
{
    work.set = &set;
    work.isOver = (set.mode & PFTRAV_IS_PRIM) == 0;
    work.isShortOfMemory = false;
    work.hits.clear();
    work.pointers.clear();
    work.none = nullptr;
    try
    {
        if (work.places.empty())
        {
            work.places.push_back(kWorld);
        }
    }
    catch (const std::exception &)
    {
        work.isShortOfMemory = true;
        work.isOver = true;
    }
}

// A callback may throw through here.
struct BusyWhile
{
    explicit BusyWhile(Work &ofWork) : work(ofWork)
    {
        work.isBusy = true;
    }
    ~BusyWhile()
    {
        work.isBusy = false;
    }
    BusyWhile(const BusyWhile &) = delete;
    BusyWhile &operator=(const BusyWhile &) = delete;
    Work &work;
};

void pointOf(const pfTriangleHit &where, float *to)
{
    const auto &corners = where.triangle.corners;
    UNROLL
    for (int axis = 0; axis < 3; ++axis)
    {
        const double origin = corners[0][axis];
        to[axis] = static_cast<float>(origin + where.weights[0] * (corners[1][axis] - origin) +
                                      where.weights[1] * (corners[2][axis] - origin));
    }
}

// Squares of edges of the greatest floats do not overflow in double precision, not even squared once more.
void normalOf(const pfTriangle &triangle, float *to)
{
    double edges[2][3];
    for (int axis = 0; axis < 3; ++axis)
    {
        const double origin = triangle.corners[0][axis];
        edges[0][axis] = triangle.corners[1][axis] - origin;
        edges[1][axis] = triangle.corners[2][axis] - origin;
    }
    double normal[3];
    cross(normal, edges[0], edges[1]);
    const double length = std::sqrt(dot(normal, normal));
    for (int axis = 0; axis < 3; ++axis)
    {
        to[axis] = static_cast<float>(normal[axis] / length);
    }
}

template<typename Value>
int give(void *dst, const Value &value)
{
    std::memcpy(dst, &value, sizeof value);
    return 1;
}

} // namespace

int pfNodeIsectSegs(pfNode *node, pfSegSet *segSet, pfHit **hits[])
{
    if (segSet == nullptr || hits == nullptr)
    {
        fprintf(stderr, "%s: no %s\n", __func__, segSet == nullptr ? "pfSegSet" : "place for hits");
        return 0;
    }
    Work &work = workOfThread();
    if (work.isBusy)
    {
        static thread_local pfHit *none;
        none = nullptr;
        forEachActive(*segSet, [=](int i) { hits[i] = &none; });
        fprintf(stderr, "%s: called by a callback of its own\n", __func__);
        return 0;
    }
    const bool isGiven = pfIsGiven(__func__, node, *work.nodeType);
    int count;
    if (isGiven && intersectAtOnce(work, *segSet, *node, hits, count))
    {
        return count;
    }
    reset(work, *segSet);
    work.isOver |= !isGiven;
    const BusyWhile busy(work);
    count = intersect(work, node, hits);
    if (work.isShortOfMemory)
    {
        fprintf(stderr, "%s: no memory for all hits\n", __func__);
    }
    return count;
}

int pfQueryHit(const pfHit *hit, unsigned int query, void *dst)
{
    if (hit == nullptr || dst == nullptr)
    {
        fprintf(stderr, "%s: no %s\n", __func__, hit == nullptr ? "pfHit" : "place for what is asked");
        return 0;
    }
    pfVec3 vector = {};
    switch (query)
    {
    case PFQHIT_SEGNUM:
        return give(dst, hit->number);
    case PFQHIT_SEG:
        return give(dst, hit->segment);
    case PFQHIT_DISTANCE:
        return give(dst, static_cast<float>(hit->where.t));
    case PFQHIT_POINT:
        pointOf(hit->where, static_cast<float *>(dst));
        return 1;
    case PFQHIT_NORM:
        if (hit->wantsNormal)
        {
            normalOf(hit->where.triangle, vector);
        }
        return give(dst, vector);
    case PFQHIT_PRIM:
        return give(dst, static_cast<int>(hit->where.triangle.prim));
    case PFQHIT_TRI:
        return give(dst, hit->where.triangle.corners);
    case PFQHIT_GSET:
        return give(dst, hit->gset);
    case PFQHIT_GEODE:
        return give(dst, hit->geode);
    case PFQHIT_USERDATA:
        return give(dst, hit->userData);
    case PFQHIT_XFORM:
        return give(dst, hit->toWorld);
    default:
        fprintf(stderr, "%s: unknown query %u\n", __func__, query);
        return 0;
    }
}
