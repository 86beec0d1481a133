#include "pfhierarchy.hpp"

#include "pfmemory.h"

#include <emmintrin.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <functional>
#include <future>
#include <limits>
#include <memory>
#include <new>
#include <system_error>

// A function that is inlined wherever it is used, so that it is compiled for the processor of its caller.
#define INLINE [[gnu::always_inline]] inline

// Before a loop of few rounds: unroll it, so that its vectors stay in registers.
#ifdef __clang__
#define UNROLL _Pragma("unroll")
#else
#define UNROLL _Pragma("GCC unroll 3")
#endif

// Vectors are handed over only where that is inlined.
#pragma GCC diagnostic ignored "-Wpsabi"

// Lanes of triangles, and of boxes. Without AVX2 the compiler makes two of one; a lane's value does not depend on it.
typedef double Doubles __attribute__((vector_size(32)));
typedef int64_t DoubleBits __attribute__((vector_size(32)));
typedef float Floats __attribute__((vector_size(32)));
typedef int32_t FloatBits __attribute__((vector_size(32)));

namespace
{

constexpr uint32_t kLanes = 4; // triangles in a block
constexpr uint32_t kWidth = 8; // children of a node
constexpr uint32_t kMostInCell = 24;
constexpr uint32_t kLeaf = 1U << 31;
constexpr uint32_t kNone = UINT32_MAX;
constexpr int kBlockBits = 28; // of a block's number
constexpr int kStepBits = 17;
constexpr uint32_t kFar = (1U << kStepBits) - 1;
constexpr uint64_t kList = uint64_t{1} << 63;
constexpr uint64_t kDeep = UINT64_MAX; // a cell of too many blocks: the hierarchy is better there
constexpr uint64_t kEmpty = UINT64_MAX - 1;
constexpr size_t kMostTriangles = size_t{1} << 28;
constexpr int kMostLevels = 40; // from there on nodes are halved, which ends after 28 more
constexpr size_t kStack = 7 * (kMostLevels + 28) + kWidth;

struct alignas(32) Block
{
    float at[3][3][kLanes]; // axis, corner; not a number where there is no triangle
    uint32_t prims[kLanes];
};

struct alignas(32) Node
{
    float sides[2][3][kWidth]; // least, greatest, in local units, see pfHierarchy; of no child the other way round
    uint32_t children[kWidth]; // a node, or a block and kLeaf
};

// The blocks of a cell of the grid, in a number: the first of them and, above, how far up the second and the third are,
// kFar for none. Or kDeep; or the place of a list of more, closed by kNone, and kList.
using Cell = uint64_t;

} // namespace

struct pfHierarchy
{
    // The box round all corners. Local units count from its least corner, and make its greatest side 1/2 to 1.
    double least[3];
    double greatest[3];
    double unit;
    float sizes[3]; // in them

    // From here.
    size_t nodes;
    size_t blocks;
    size_t cells;
    size_t lists;

    uint32_t columns; // of cells; 0 without a grid
    uint32_t rows;
    double cellsPerX;
    double cellsPerY;
};

namespace
{

template<typename Item>
const Item *at(const pfHierarchy &hierarchy, size_t offset)
{
    return reinterpret_cast<const Item *>(reinterpret_cast<const char *>(&hierarchy) + offset);
}

// Whatever the rounding, a coordinate between two others is in a cell between theirs.
uint32_t cellOf(double coordinate, double least, double perUnit, uint32_t count)
{
    return std::min(count - 1, static_cast<uint32_t>((coordinate - least) * perUnit));
}

//
// The test of triangles. As in S. Woop, C. Benthin, I. Wald, Watertight Ray/Triangle Intersection, 2013, corners are
// projected along the segment into a plane of its origin, but without a division: for corners, origins and directions
// that are single numbers of similar size the projection is exact. The sign of an edge function is then right, or it is
// 0, because rounding keeps order; and a segment in the plane of a triangle gets 0 three times.
//

struct Line
{
    const pfLocalSegment &segment;
    int x, y, z; // axes, z the one of the greatest component of the direction
    double direction[3];
    double origin[3]; // in order x, y, z, as the direction, which is scaled by a power of 2 here
    double unscale;
    bool isVertical;
    bool isUsable;

    INLINE explicit Line(const pfLocalSegment &from) : segment(from)
    {
        const double(&o)[3] = from.origin, (&d)[3] = from.direction;
        const double sizes[3] = {std::fabs(d[0]), std::fabs(d[1]), std::fabs(d[2])};
        isVertical = d[0] == 0 && d[1] == 0;
        z = isVertical || (sizes[2] >= sizes[0] && sizes[2] >= sizes[1]) ? 2 : sizes[1] >= sizes[0] ? 1 : 0;
        x = z == 0 ? 1 : 0;
        y = z == 2 ? 1 : 2;
        // 0 but for what is not finite.
        const double none = (((o[0] + o[1]) + (o[2] + d[0])) + (d[1] + d[2])) * 0;
        isUsable = none == 0 && sizes[z] > 0;
        // The exponent, read off the bits; of denormal numbers it is not right, but small enough.
        const int exponent = static_cast<int>(std::bit_cast<uint64_t>(sizes[z]) >> 52) - 1023;
        const int shift = std::clamp(-exponent, -1000, 1000);
        unscale = std::bit_cast<double>(static_cast<uint64_t>(1023 + shift) << 52);
        origin[0] = o[x];
        origin[1] = o[y];
        origin[2] = o[z];
        direction[0] = d[x] * unscale;
        direction[1] = d[y] * unscale;
        direction[2] = d[z] * unscale;
    }
};

// With AVX2, in one instruction: left to itself, GCC takes five.
template<bool hasAvx2>
INLINE Doubles load(const float *from)
{
#ifndef __clang__
    if constexpr (hasAvx2)
    {
        Doubles lanes;
        asm("vcvtps2pd %1, %0" : "=x"(lanes) : "m"(*reinterpret_cast<const float(*)[kLanes]>(from)));
        return lanes;
    }
#endif
    typedef float Four __attribute__((vector_size(16), may_alias));
    return __builtin_convertvector(*reinterpret_cast<const Four *>(from), Doubles);
}

INLINE unsigned bitsOfFour(const DoubleBits &mask)
{
    __m128d halves[2];
    std::memcpy(halves, &mask, sizeof mask);
    return static_cast<unsigned>(_mm_movemask_pd(halves[0]) | _mm_movemask_pd(halves[1]) << 2);
}

INLINE unsigned bitsOfEight(const FloatBits &mask)
{
    __m128 halves[2];
    std::memcpy(halves, &mask, sizeof mask);
    return static_cast<unsigned>(_mm_movemask_ps(halves[0]) | _mm_movemask_ps(halves[1]) << 4);
}

// One triangle, or lanes of them, beside the line: corners in order of its axes, and what comes of them.
template<typename Number>
struct Sides
{
    Number x[3], y[3], z[3];
    Number edges[3]; // the one opposite to each corner
    Number sum;
};

// From corners, in coordinates less the origin. Without z where the line is vertical.
template<bool isVertical, typename Number>
INLINE void measureSides(const Line &line, Sides<Number> &sides)
{
    UNROLL
    for (int i = 0; !isVertical && i < 3; ++i)
    {
        sides.x[i] = sides.x[i] * line.direction[2] - line.direction[0] * sides.z[i];
        sides.y[i] = sides.y[i] * line.direction[2] - line.direction[1] * sides.z[i];
    }
    UNROLL
    for (int i = 0; i < 3; ++i)
    {
        const int from = (i + 2) % 3, to = (i + 1) % 3;
        sides.edges[i] = sides.x[from] * sides.y[to] - sides.y[from] * sides.x[to];
    }
    sides.sum = (sides.edges[0] + sides.edges[1]) + sides.edges[2];
}

template<typename Number>
INLINE auto isHit(const Sides<Number> &sides)
{
    const Number(&e)[3] = sides.edges;
    return (((e[0] >= 0) & (e[1] >= 0) & (e[2] >= 0)) | ((e[0] <= 0) & (e[1] <= 0) & (e[2] <= 0))) & (sides.sum != 0);
}

// Which of the triangles the line through the segment hits.
template<bool isVertical, bool hasAvx2>
INLINE unsigned hitBlock(const Block &block, const Line &line)
{
    Sides<Doubles> sides;
    const float(&x)[3][kLanes] = block.at[isVertical ? 0 : line.x];
    const float(&y)[3][kLanes] = block.at[isVertical ? 1 : line.y];
    const float(&z)[3][kLanes] = block.at[isVertical ? 2 : line.z];
    UNROLL
    for (int i = 0; i < 3; ++i)
    {
        sides.x[i] = load<hasAvx2>(x[i]) - line.origin[0];
        sides.y[i] = load<hasAvx2>(y[i]) - line.origin[1];
        if constexpr (!isVertical)
        {
            sides.z[i] = load<hasAvx2>(z[i]) - line.origin[2];
        }
    }
    measureSides<isVertical>(line, sides);
    return bitsOfFour(isHit(sides));
}

// Where a triangle is seen on edge, or is tiny beside its distance, rounding may put the hit outside its box. It is moved
// to where the segment is in the box, or it is none, so that whoever looks into all boxes on the way misses nothing.
template<typename Corner>
[[gnu::noinline]] bool settle(const Corner &corner, const pfLocalSegment &segment, double &t)
{
    double least[3], greatest[3], slack[3];
    bool isOutside = false;
    for (int axis = 0; axis < 3; ++axis)
    {
        const float a = corner(0, axis), b = corner(1, axis), c = corner(2, axis);
        const double origin = segment.origin[axis], way = t * segment.direction[axis];
        least[axis] = std::min(a, std::min(b, c));
        greatest[axis] = std::max(a, std::max(b, c));
        slack[axis] = segment.direction[axis] == 0 ? 0 : 0x1p-40 * (std::fabs(origin) + std::fabs(way));
        isOutside |= !(origin + way >= least[axis] - slack[axis] && origin + way <= greatest[axis] + slack[axis]);
    }
    if (!isOutside)
    {
        return true;
    }
    double nearest = -HUGE_VAL, farthest = HUGE_VAL;
    for (int axis = 0; axis < 3; ++axis)
    {
        const double origin = segment.origin[axis], direction = segment.direction[axis];
        if (direction == 0)
        {
            if (!(origin >= least[axis] && origin <= greatest[axis]))
            {
                return false;
            }
            continue;
        }
        const double a = (least[axis] - slack[axis] - origin) / direction;
        const double b = (greatest[axis] + slack[axis] - origin) / direction;
        nearest = std::max(nearest, std::min(a, b));
        farthest = std::min(farthest, std::max(a, b));
    }
    t = std::max(nearest, std::min(t, farthest));
    return nearest <= farthest;
}

// Of a vertical segment: t is between those of the corners, and corners are compared rightly.
bool isAbove(const double (&x)[3])
{
    return !(x[0] > 0 && x[1] > 0 && x[2] > 0) && !(x[0] < 0 && x[1] < 0 && x[2] < 0);
}

// The test of one triangle: the numbers of a lane, and the hit. Its corners are corner(number, axis).
template<bool isVertical, typename Corner>
INLINE bool hitCorners(const Corner &corner, const Line &line, double &t, double (&weights)[2])
{
    Sides<double> sides;
    UNROLL
    for (int i = 0; i < 3; ++i)
    {
        sides.x[i] = corner(i, isVertical ? 0 : line.x) - line.origin[0];
        sides.y[i] = corner(i, isVertical ? 1 : line.y) - line.origin[1];
        sides.z[i] = corner(i, isVertical ? 2 : line.z) - line.origin[2];
    }
    measureSides<isVertical>(line, sides);
    if (!isHit(sides))
    {
        return false;
    }
    const double(&e)[3] = sides.edges, (&z)[3] = sides.z;
    t = ((e[0] * z[0] + e[1] * z[1]) + e[2] * z[2]) / (sides.sum * line.direction[2]) * line.unscale;
    weights[0] = e[1] / sides.sum;
    weights[1] = e[2] / sides.sum;
    return std::fabs(t) <= DBL_MAX &&
           (isVertical ? isAbove(sides.x) && isAbove(sides.y) : settle(corner, line.segment, t));
}

// What is sought, and what was found of it.
struct Search
{
    const Line &line;
    double most;                     // no hit beyond it counts any more
    pfTriangleHit *nearest;          // or null:
    std::vector<pfTriangleHit> *all; // all are wanted
    bool found = false;
};

// Few of many blocks have a hit: worth no room in what is inlined everywhere.
template<bool isVertical>
[[gnu::noinline]] void takeHits(const Block &block, unsigned lanes, Search &search)
{
    for (; lanes != 0; lanes &= lanes - 1)
    {
        const auto lane = static_cast<unsigned>(std::countr_zero(lanes));
        const auto corner = [&](int number, int axis) { return block.at[axis][number][lane]; };
        double t, weights[2];
        if (!hitCorners<isVertical>(corner, search.line, t, weights) || !(t >= search.line.segment.least) ||
            !(t <= search.most) ||
            (search.nearest != nullptr && search.found && t == search.most &&
             block.prims[lane] >= search.nearest->triangle.prim))
        {
            continue;
        }
        search.found = true;
        pfTriangleHit &hit = search.nearest != nullptr ? *search.nearest : search.all->emplace_back();
        search.most = search.nearest != nullptr ? t : search.most;
        hit.t = t;
        hit.weights[0] = weights[0];
        hit.weights[1] = weights[1];
        hit.triangle.prim = block.prims[lane];
        UNROLL
        for (int i = 0; i < 3; ++i)
        {
            UNROLL
            for (int axis = 0; axis < 3; ++axis)
            {
                hit.triangle.corners[i][axis] = corner(i, axis);
            }
        }
    }
}

//
// The way of a segment through the hierarchy.
//

// The part of a segment in the box round everything, in local units: origin + s way, s from 0 to 1. Boxes are moved apart
// by a margin for all errors of rounding: those of a single-precision number up to 1 and a few operations on it, and those
// of the segment's own numbers, which may be far greater than the box.
struct Part
{
    double start;                    // t where s is 0
    double length;                   // of t
    float inverse[3];                // of the way
    float nearStart[3], farStart[3]; // origin times that
    unsigned nearSide[3];
};

bool clip(const pfHierarchy &hierarchy, const Line &line, Part &part)
{
    const pfLocalSegment &segment = line.segment;
    double start = segment.least, end = segment.most;
    for (int axis = 0; axis < 3; ++axis)
    {
        const double origin = segment.origin[axis], direction = segment.direction[axis];
        const double least = hierarchy.least[axis], greatest = hierarchy.greatest[axis];
        const double slack = 0x1p-38 * (std::fabs(origin) + std::fabs(least) + std::fabs(greatest));
        if (direction == 0)
        {
            if (origin < least || origin > greatest)
            {
                return false;
            }
            continue;
        }
        const double a = (least - slack - origin) / direction, b = (greatest + slack - origin) / direction;
        start = std::max(start, std::min(a, b));
        end = std::min(end, std::max(a, b));
    }
    if (!(start <= end))
    {
        return false;
    }
    part.start = start;
    part.length = end - start;
    for (int axis = 0; axis < 3; ++axis)
    {
        const double origin = segment.origin[axis], direction = segment.direction[axis];
        const double size = hierarchy.sizes[axis];
        const auto local = [&](double t)
        { return std::clamp((origin + t * direction - hierarchy.least[axis]) * hierarchy.unit, -1.0, 2.0); };
        const double first = local(start), way = local(end) - first;
        const double far = std::fabs(hierarchy.least[axis]) + std::fabs(hierarchy.greatest[axis]) + std::fabs(origin) +
                           std::fabs(start * direction) + std::fabs(end * direction);
        const double margin = std::min(16.0, 0x1p-20 * std::max(size, 0x1p-40) + 0x1p-36 * far * hierarchy.unit);
        const double steady = std::copysign(std::max(std::fabs(way), margin / 4), direction);
        const double inverse = 1 / steady;
        part.inverse[axis] = static_cast<float>(inverse);
        part.nearSide[axis] = steady < 0;
        const double outwards = std::copysign(margin, steady);
        part.nearStart[axis] = static_cast<float>((first + outwards) * inverse);
        part.farStart[axis] = static_cast<float>((first - outwards) * inverse);
    }
    return true;
}

// Greater than or equal to s for t.
float partUpTo(const Part &part, double t)
{
    const double s = (t - part.start) / part.length;
    return s < 1 ? static_cast<float>(std::max(s, 0.0) * (1 + 0x1p-22)) : 1;
}

INLINE Floats loadSide(const float *from)
{
    Floats side;
    std::memcpy(&side, from, sizeof side);
    return side;
}

struct Open
{
    float s;
    uint32_t child;
};

// The children of a node that the part enters, and where.
INLINE unsigned enterNode(const Node &node, const Part &part, float most, float *s)
{
    Floats near = {}, far = near + most;
    UNROLL
    for (int axis = 0; axis < 3; ++axis)
    {
        const unsigned side = part.nearSide[axis];
        const Floats in = loadSide(node.sides[side][axis]) * part.inverse[axis] - part.nearStart[axis];
        const Floats out = loadSide(node.sides[side ^ 1][axis]) * part.inverse[axis] - part.farStart[axis];
        near = in > near ? in : near;
        far = out < far ? out : far;
    }
    std::memcpy(s, &near, sizeof near);
    return bitsOfEight(near <= far);
}

template<bool isVertical, bool hasAvx2>
INLINE void search(const pfHierarchy &hierarchy, Search &search)
{
    Part part;
    if (!clip(hierarchy, search.line, part))
    {
        return;
    }
    const Node *nodes = at<Node>(hierarchy, hierarchy.nodes);
    const Block *blocks = at<Block>(hierarchy, hierarchy.blocks);
    Open stack[kStack];
    size_t open = 0;
    uint32_t child = 0;
    float most = 1;
    for (;;)
    {
        if ((child & kLeaf) != 0)
        {
            const Block &block = blocks[child & ~kLeaf];
            if (const unsigned hit = hitBlock<isVertical, hasAvx2>(block, search.line); hit != 0)
            {
                takeHits<isVertical>(block, hit, search);
                most = partUpTo(part, search.most);
            }
        }
        else
        {
            const Node &node = nodes[child];
            alignas(32) float s[kWidth];
            const size_t first = open;
            for (unsigned entered = enterNode(node, part, most, s); entered != 0; entered &= entered - 1)
            {
                const auto i = static_cast<unsigned>(std::countr_zero(entered));
                // The nearest on top.
                size_t place = open++;
                for (; place > first && stack[place - 1].s < s[i]; --place)
                {
                    stack[place] = stack[place - 1];
                }
                const uint32_t each = node.children[i];
                stack[place] = {s[i], each};
                const char *const next = (each & kLeaf) != 0 ? reinterpret_cast<const char *>(blocks + (each & ~kLeaf))
                                                             : reinterpret_cast<const char *>(nodes + each);
                __builtin_prefetch(next);
                __builtin_prefetch(next + 64);
                __builtin_prefetch(next + 128);
            }
        }
        do
        {
            if (open == 0)
            {
                return;
            }
            --open;
        } while (stack[open].s > most);
        child = stack[open].child;
    }
}

// False where the hierarchy is better.
template<bool hasAvx2>
INLINE bool searchGrid(const pfHierarchy &hierarchy, Search &search)
{
    const double x = search.line.segment.origin[0], y = search.line.segment.origin[1];
    if (!(x >= hierarchy.least[0] && x <= hierarchy.greatest[0] && y >= hierarchy.least[1] &&
          y <= hierarchy.greatest[1]))
    {
        return true;
    }
    if (hierarchy.columns == 0)
    {
        return false;
    }
    const Block *blocks = at<Block>(hierarchy, hierarchy.blocks);
    const size_t row = cellOf(y, hierarchy.least[1], hierarchy.cellsPerY, hierarchy.rows);
    const size_t column = cellOf(x, hierarchy.least[0], hierarchy.cellsPerX, hierarchy.columns);
    const Cell cell = at<Cell>(hierarchy, hierarchy.cells)[row * hierarchy.columns + column];
    if (cell >= kList)
    {
        if (cell == kDeep)
        {
            return false;
        }
        const uint32_t *list = at<uint32_t>(hierarchy, hierarchy.lists) + (cell & ~kList);
        for (; cell != kEmpty && *list != kNone; ++list)
        {
            if (const unsigned hit = hitBlock<true, hasAvx2>(blocks[*list], search.line); hit != 0)
            {
                takeHits<true>(blocks[*list], hit, search);
            }
        }
        return true;
    }
    const Block *const first = blocks + (cell & ((1U << kBlockBits) - 1));
    const auto second = static_cast<uint32_t>(cell >> kBlockBits) & kFar;
    const auto third = static_cast<uint32_t>(cell >> (kBlockBits + kStepBits)) & kFar;
    const Block *const hits[3] = {first, second == kFar ? first : first + second,
                                  third == kFar ? first : first + third};
    for (const Block *each : hits)
    {
        __builtin_prefetch(each);
        __builtin_prefetch(&each->at[1][1]);
        __builtin_prefetch(&each->prims);
    }
    // Two in any case: whether there are two is foretold too badly.
    unsigned hit = hitBlock<true, hasAvx2>(*first, search.line);
    hit |= (second == kFar ? 0 : hitBlock<true, hasAvx2>(*hits[1], search.line) << kLanes);
    if (third != kFar)
    {
        hit |= hitBlock<true, hasAvx2>(*hits[2], search.line) << (2 * kLanes);
    }
    for (; hit != 0; hit &= hit - 1)
    {
        const auto lane = static_cast<unsigned>(std::countr_zero(hit));
        takeHits<true>(*hits[lane / kLanes], 1U << lane % kLanes, search);
    }
    return true;
}

template<bool hasAvx2>
INLINE void searchAnyWay(const pfHierarchy &hierarchy, Search &sought)
{
    if (!sought.line.isVertical)
    {
        search<false, hasAvx2>(hierarchy, sought);
    }
    else if (!searchGrid<hasAvx2>(hierarchy, sought))
    {
        search<true, hasAvx2>(hierarchy, sought);
    }
}

// Tests compile this a second time with TOLVIN_WITHOUT_AVX2, so that the other code is tested on processors that have it.
#ifndef TOLVIN_WITHOUT_AVX2
[[gnu::target("avx2")]] void searchAvx2(const pfHierarchy &hierarchy, Search &sought)
{
    searchAnyWay<true>(hierarchy, sought);
}
#endif

void searchPlain(const pfHierarchy &hierarchy, Search &sought)
{
    searchAnyWay<false>(hierarchy, sought);
}

bool searchFor(const pfHierarchy &hierarchy, Search &sought)
{
    const bool isEmpty = hierarchy.nodes == hierarchy.blocks;
    if (isEmpty || !sought.line.isUsable)
    {
        return false;
    }
#ifndef TOLVIN_WITHOUT_AVX2
    if (__builtin_cpu_supports("avx2"))
    {
        searchAvx2(hierarchy, sought);
        return sought.found;
    }
#endif
    searchPlain(hierarchy, sought);
    return sought.found;
}

//
// Building. Boxes are split where the surface-area heuristic says, with the centroids in bins (I. Wald, On fast
// Construction of SAH-based Bounding Volume Hierarchies, 2007). A box of more triangles than a block holds costs its area
// times the blocks for them.
//

constexpr uint32_t kNormal = 1U << 30;

// A triangle's box in local units. Aligned to be read as two vectors.
struct alignas(16) Item
{
    float least[3];
    uint32_t triangle; // and kNormal: read as a float, which it is beside the others, it must not be denormal, so slow
    float greatest[3];
    uint32_t unused;
};

using Items = std::unique_ptr<Item[]>; // not initialised: they are many

struct Bounds
{
    __m128 least, greatest; // the last lane is anything
};

struct Range
{
    uint32_t begin, end;
    uint32_t buffer; // which of the two that they are in
    float area;
    Bounds box;
    Bounds centroids; // twice: least + greatest

    uint32_t size() const
    {
        return end - begin;
    }
};

Bounds emptyBounds()
{
    return {_mm_set1_ps(FLT_MAX), _mm_set1_ps(-FLT_MAX)};
}

Bounds together(const Bounds &a, const Bounds &b)
{
    return {_mm_min_ps(a.least, b.least), _mm_max_ps(a.greatest, b.greatest)};
}

Bounds boxOf(const Item &item)
{
    return {_mm_load_ps(item.least), _mm_load_ps(item.greatest)};
}

__m128 centroidOf(const Item &item)
{
    return _mm_add_ps(_mm_load_ps(item.least), _mm_load_ps(item.greatest));
}

float areaOf(const Bounds &box)
{
    alignas(16) float d[4];
    _mm_store_ps(d, _mm_sub_ps(box.greatest, box.least));
    return d[0] * d[1] + d[1] * d[2] + d[2] * d[0];
}

uint32_t blocksFor(uint32_t triangles)
{
    return (triangles + kLanes - 1) / kLanes;
}

using Leaves = std::vector<std::array<uint32_t, kLanes>>; // triangles, or kNone

struct Tree
{
    std::vector<Node> nodes;
    Leaves leaves;
};

class Builder
{
public:
    Tree tree;

    Builder(Items theItems, uint32_t count) : items{std::move(theItems), std::make_unique_for_overwrite<Item[]>(count)}
    {
        if (count >= kWorthThread)
        {
            buildByTwo(measured(0, count, 0));
        }
        else if (count != 0)
        {
            build(measured(0, count, 0), 0, tree);
        }
    }

private:
    static constexpr uint32_t kWorthThread = 50000;
    static constexpr uint32_t kBins = 16;

    Items items[2];

    Range measured(uint32_t begin, uint32_t end, uint32_t buffer) const
    {
        Range range = {begin, end, buffer, 0, emptyBounds(), emptyBounds()};
        for (uint32_t i = begin; i < end; ++i)
        {
            const Item &item = items[buffer][i];
            range.box = together(range.box, boxOf(item));
            range.centroids = together(range.centroids, {centroidOf(item), centroidOf(item)});
        }
        range.area = areaOf(range.box);
        return range;
    }

    // Split in the middle of the axis along which centroids differ most, into full blocks.
    void halve(const Range &range, Range &left, Range &right)
    {
        alignas(16) float d[4];
        _mm_store_ps(d, _mm_sub_ps(range.centroids.greatest, range.centroids.least));
        const int axis = d[0] >= d[1] && d[0] >= d[2] ? 0 : d[1] >= d[2] ? 1 : 2;
        const uint32_t middle = range.begin + kLanes * ((blocksFor(range.size()) + 1) / 2);
        const auto isLess = [axis](const Item &a, const Item &b)
        { return a.least[axis] + a.greatest[axis] < b.least[axis] + b.greatest[axis]; };
        Item *const all = items[range.buffer].get();
        std::nth_element(all + range.begin, all + middle, all + range.end, isLess);
        left = measured(range.begin, middle, range.buffer);
        right = measured(middle, range.end, range.buffer);
    }

    // Which bin a centroid is in, for each axis.
    struct Binning
    {
        __m128 least, perUnit;
        uint32_t bins;
        int axes[3]; // worth a look: the longest, and those that are half as long
        int axisCount = 0;

        Binning(const Range &range)
        {
            bins = range.size() < 64 ? 8 : kBins;
            least = range.centroids.least;
            const __m128 size = _mm_sub_ps(range.centroids.greatest, least);
            alignas(16) float d[4];
            _mm_store_ps(d, size);
            for (int axis = 0; axis < 3; ++axis)
            {
                if (2 * d[axis] >= std::max(d[0], std::max(d[1], d[2])))
                {
                    axes[axisCount++] = axis;
                }
            }
            const __m128 wide = _mm_cmpgt_ps(size, _mm_set1_ps(1e-30F));
            perUnit = _mm_and_ps(wide, _mm_div_ps(_mm_set1_ps(static_cast<float>(bins) * 0.9999F), size));
        }

        __m128i operator()(const Item &item) const
        {
            const __m128 place = _mm_mul_ps(_mm_sub_ps(centroidOf(item), least), perUnit);
            const __m128 last = _mm_set1_ps(static_cast<float>(bins - 1));
            return _mm_cvttps_epi32(_mm_max_ps(_mm_min_ps(place, last), _mm_setzero_ps()));
        }
    };

    struct Split
    {
        float cost = HUGE_VALF;
        int axis = 0;
        uint32_t bin = 0; // the first on the right
        uint32_t leftCount = 0;
        Bounds left, right;
    };

    struct Bins
    {
        Bounds boxes[3][kBins];
        uint32_t counts[3][kBins];
    };

    void fill(Bins &bins, const Range &range, const Binning &binning) const
    {
        for (int n = 0; n < binning.axisCount; ++n)
        {
            const int axis = binning.axes[n];
            std::fill_n(bins.boxes[axis], binning.bins, emptyBounds());
            std::fill_n(bins.counts[axis], binning.bins, 0);
        }
        for (uint32_t i = range.begin; i < range.end; ++i)
        {
            const Item &item = items[range.buffer][i];
            const Bounds box = boxOf(item);
            alignas(16) uint32_t at[4];
            _mm_store_si128(reinterpret_cast<__m128i *>(at), binning(item));
            for (int n = 0; n < binning.axisCount; ++n)
            {
                const int axis = binning.axes[n];
                Bounds &all = bins.boxes[axis][at[axis]];
                all = together(all, box);
                ++bins.counts[axis][at[axis]];
            }
        }
    }

    static void sweep(const Bins &bins, int axis, uint32_t count, uint32_t total, Split &best)
    {
        Bounds rights[kBins];
        Bounds box = emptyBounds();
        for (uint32_t i = count - 1; i > 0; --i)
        {
            box = together(box, bins.boxes[axis][i]);
            rights[i] = box;
        }
        box = emptyBounds();
        uint32_t lefts = 0;
        for (uint32_t i = 1; i < count; ++i)
        {
            box = together(box, bins.boxes[axis][i - 1]);
            lefts += bins.counts[axis][i - 1];
            if (lefts == 0 || lefts == total)
            {
                continue;
            }
            const float cost = areaOf(box) * static_cast<float>(blocksFor(lefts)) +
                               areaOf(rights[i]) * static_cast<float>(blocksFor(total - lefts));
            if (cost < best.cost)
            {
                best = {cost, axis, i, lefts, box, rights[i]};
            }
        }
    }

    // Copied to the other buffer without a branch that depends on the side: it would be foretold badly.
    void distribute(const Range &range, const Binning &binning, const Split &split)
    {
        const Item *from = items[range.buffer].get();
        Item *const to = items[range.buffer ^ 1].get();
        uint32_t places[2] = {range.begin, range.begin + split.leftCount};
        for (uint32_t i = range.begin; i < range.end; ++i)
        {
            alignas(16) uint32_t at[4];
            _mm_store_si128(reinterpret_cast<__m128i *>(at), binning(from[i]));
            to[places[at[split.axis] >= split.bin]++] = from[i];
        }
    }

    void divide(const Range &range, int level, Range &left, Range &right)
    {
        Split split;
        const Binning binning(range);
        if (range.size() > 2 * kLanes && level < kMostLevels)
        {
            Bins bins;
            fill(bins, range, binning);
            for (int n = 0; n < binning.axisCount; ++n)
            {
                sweep(bins, binning.axes[n], binning.bins, range.size(), split);
            }
        }
        if (split.leftCount == 0)
        {
            halve(range, left, right);
            return;
        }
        distribute(range, binning, split);
        const uint32_t middle = range.begin + split.leftCount;
        left = {range.begin, middle, range.buffer ^ 1, areaOf(split.left), split.left, range.centroids};
        right = {middle, range.end, range.buffer ^ 1, areaOf(split.right), split.right, range.centroids};
        for (Range *side : {&left, &right})
        {
            // Centroids are in the box, too.
            const __m128 least = _mm_add_ps(side->box.least, side->box.least);
            const __m128 greatest = _mm_add_ps(side->box.greatest, side->box.greatest);
            side->centroids.least = _mm_max_ps(side->centroids.least, least);
            side->centroids.greatest = _mm_min_ps(side->centroids.greatest, greatest);
        }
    }

    uint32_t addLeaf(const Range &range, Leaves &leaves) const
    {
        std::array<uint32_t, kLanes> &leaf = leaves.emplace_back();
        for (uint32_t i = 0; i < kLanes; ++i)
        {
            leaf[i] = i < range.size() ? items[range.buffer][range.begin + i].triangle & ~kNormal : kNone;
        }
        return static_cast<uint32_t>(leaves.size() - 1) | kLeaf;
    }

    static void setBoxes(Node &node, const Range (&children)[kWidth], uint32_t count)
    {
        for (uint32_t i = 0; i < kWidth; ++i)
        {
            const Bounds box = i < count ? children[i].box : emptyBounds();
            alignas(16) float sides[2][4];
            _mm_store_ps(sides[0], box.least);
            _mm_store_ps(sides[1], box.greatest);
            for (int axis = 0; axis < 3; ++axis)
            {
                node.sides[0][axis][i] = sides[0][axis];
                node.sides[1][axis][i] = sides[1][axis];
            }
        }
    }

    // Into the children of a node.
    uint32_t divide(const Range &range, int level, Range (&children)[kWidth])
    {
        children[0] = range;
        uint32_t count = 1;
        for (; count < kWidth; ++count)
        {
            Range *greatest = nullptr;
            for (uint32_t i = 0; i < count; ++i)
            {
                if (children[i].size() > kLanes && (greatest == nullptr || children[i].area > greatest->area))
                {
                    greatest = &children[i];
                }
            }
            if (greatest == nullptr)
            {
                break;
            }
            const Range whole = *greatest;
            divide(whole, level, *greatest, children[count]);
        }
        return count;
    }

    uint32_t build(const Range &range, int level, Tree &part)
    {
        if (range.size() <= kLanes && level > 0)
        {
            return addLeaf(range, part.leaves);
        }
        Range children[kWidth];
        const uint32_t count = divide(range, level, children);
        const auto number = static_cast<uint32_t>(part.nodes.size());
        setBoxes(part.nodes.emplace_back(), children, count);
        for (uint32_t i = 0; i < count; ++i)
        {
            const uint32_t child = build(children[i], level + 1, part);
            part.nodes[number].children[i] = child;
        }
        return number;
    }

    // About half of it in another thread, if there is one.
    void buildByTwo(const Range &range)
    {
        Range children[kWidth];
        const uint32_t count = divide(range, 0, children);
        setBoxes(tree.nodes.emplace_back(), children, count);
        Tree other;
        uint32_t sizes[2] = {0, 0}, numbers[kWidth] = {};
        bool isOther[kWidth] = {};
        for (uint32_t i = 0; i < count; ++i)
        {
            isOther[i] = sizes[1] < sizes[0];
            sizes[isOther[i]] += children[i].size();
        }
        const auto buildPart = [&](bool which, Tree &part)
        {
            for (uint32_t i = 0; i < count; ++i)
            {
                numbers[i] = isOther[i] == which ? build(children[i], 1, part) : numbers[i];
            }
        };
        std::future<void> task;
        try
        {
            task = std::async(std::launch::async, buildPart, true, std::ref(other));
        }
        catch (const std::system_error &)
        {
            buildPart(true, other);
        }
        buildPart(false, tree);
        if (task.valid())
        {
            task.get();
        }
        append(other, numbers, isOther);
    }

    void append(Tree &other, uint32_t (&numbers)[kWidth], const bool (&isOther)[kWidth])
    {
        const auto nodes = static_cast<uint32_t>(tree.nodes.size());
        const auto leaves = static_cast<uint32_t>(tree.leaves.size());
        const auto moved = [=](uint32_t child) { return child + ((child & kLeaf) != 0 ? leaves : nodes); };
        for (Node &node : other.nodes)
        {
            std::transform(node.children, node.children + kWidth, node.children, moved);
        }
        for (uint32_t i = 0; i < kWidth; ++i)
        {
            tree.nodes[0].children[i] = isOther[i] ? moved(numbers[i]) : numbers[i];
        }
        tree.nodes.insert(tree.nodes.end(), other.nodes.begin(), other.nodes.end());
        tree.leaves.insert(tree.leaves.end(), other.leaves.begin(), other.leaves.end());
    }
};

//
// The grid.
//

// A triangle from above, in units of cells.
struct Footprint
{
    uint32_t least[2], greatest[2]; // cells, closed
    double edges[3][3];             // a x + b y + c >= 0 inside, to which cells are compared by their middles
    bool isOnEdge;                  // <= 0, too

    bool covers(uint32_t column, uint32_t row) const
    {
        if (column < least[0] || column > greatest[0] || row < least[1] || row > greatest[1])
        {
            return false;
        }
        const double x = column + 0.5, y = row + 0.5;
        for (const auto &[a, b, c] : edges)
        {
            const double value = a * x + b * y + c;
            const double reach = 0.51 * (std::fabs(a) + std::fabs(b)); // half a cell, and some more for rounding
            if (value < -reach || (isOnEdge && value > reach))
            {
                return false;
            }
        }
        return true;
    }
};

class GridBuilder
{
public:
    uint32_t columns = 0, rows = 0;
    double perUnit[2] = {0, 0};
    std::vector<Cell> cells;
    std::vector<uint32_t> lists;

    GridBuilder(std::span<const pfTriangle> theTriangles, const pfHierarchy &hierarchy, const Leaves &leaves)
        : triangles(theTriangles),
          least{hierarchy.least[0], hierarchy.least[1]}
    {
        const double sizes[2] = {hierarchy.greatest[0] - least[0], hierarchy.greatest[1] - least[1]};
        if (sizes[0] <= 0 || sizes[1] <= 0)
        {
            return;
        }
        const auto count = static_cast<double>(triangles.size());
        double wanted = std::max(1.0, 0.75 * count);
        do
        {
            const double square = std::sqrt(sizes[0] / wanted) * std::sqrt(sizes[1]);
            columns = static_cast<uint32_t>(std::clamp(sizes[0] / square, 1.0, wanted));
            rows = static_cast<uint32_t>(std::clamp(wanted / columns, 1.0, wanted));
            perUnit[0] = columns / sizes[0];
            perUnit[1] = rows / sizes[1];
            wanted /= 4;
        } while (!isFineEnough() && columns * rows > 16);
        enter(leaves);
        index();
    }

private:
    std::span<const pfTriangle> triangles;
    double least[2];
    std::vector<uint32_t> counts;

    static constexpr uint32_t kInline = 3;

    struct Entry
    {
        uint32_t cell, block;
    };
    std::vector<std::array<uint32_t, kInline>> firsts;
    std::vector<Entry> more; // than these

    void cellsOf(const pfTriangle &triangle, Footprint &print) const
    {
        for (int axis = 0; axis < 2; ++axis)
        {
            const float a = triangle.corners[0][axis], b = triangle.corners[1][axis], c = triangle.corners[2][axis];
            const uint32_t count = axis == 0 ? columns : rows;
            print.least[axis] = cellOf(std::min({a, b, c}), least[axis], perUnit[axis], count);
            print.greatest[axis] = cellOf(std::max({a, b, c}), least[axis], perUnit[axis], count);
        }
    }

    // Whether huge triangles, which are in many cells each, make no more entries than the others.
    bool isFineEnough() const
    {
        double entries = 0;
        for (const pfTriangle &triangle : triangles)
        {
            Footprint print;
            cellsOf(triangle, print);
            entries += (print.greatest[0] - print.least[0] + 1.0) * (print.greatest[1] - print.least[1] + 1.0);
        }
        return entries <= 16.0 * static_cast<double>(triangles.size());
    }

    Footprint footprint(const pfTriangle &triangle) const
    {
        Footprint print;
        cellsOf(triangle, print);
        double at[3][2];
        for (int i = 0; i < 3; ++i)
        {
            at[i][0] = (triangle.corners[i][0] - least[0]) * perUnit[0];
            at[i][1] = (triangle.corners[i][1] - least[1]) * perUnit[1];
        }
        const double area =
            (at[1][0] - at[0][0]) * (at[2][1] - at[0][1]) - (at[2][0] - at[0][0]) * (at[1][1] - at[0][1]);
        const double sign = area < 0 ? -1 : 1;
        print.isOnEdge = area == 0;
        for (int i = 0; i < 3; ++i)
        {
            const double(&from)[2] = at[i], (&to)[2] = at[(i + 1) % 3];
            const double a = sign * (from[1] - to[1]), b = sign * (to[0] - from[0]);
            print.edges[i][0] = a;
            print.edges[i][1] = b;
            print.edges[i][2] = -(a * from[0] + b * from[1]);
        }
        return print;
    }

    void enter(const Leaves &leaves)
    {
        firsts.assign(size_t{columns} * rows, {kNone, kNone, kNone});
        counts.assign(firsts.size(), 0);
        for (uint32_t block = 0; block < leaves.size(); ++block)
        {
            Footprint prints[kLanes];
            uint32_t from[2] = {UINT32_MAX, UINT32_MAX}, to[2] = {0, 0};
            uint32_t count = 0;
            for (; count < kLanes && leaves[block][count] != kNone; ++count)
            {
                prints[count] = footprint(triangles[leaves[block][count]]);
                for (int axis = 0; axis < 2; ++axis)
                {
                    from[axis] = std::min(from[axis], prints[count].least[axis]);
                    to[axis] = std::max(to[axis], prints[count].greatest[axis]);
                }
            }
            for (uint32_t row = from[1]; row <= to[1]; ++row)
            {
                for (uint32_t column = from[0]; column <= to[0]; ++column)
                {
                    if (std::any_of(prints, prints + count,
                                    [=](const Footprint &print) { return print.covers(column, row); }))
                    {
                        enter(row * columns + column, block);
                    }
                }
            }
        }
    }

    void enter(uint32_t cell, uint32_t block)
    {
        const uint32_t count = counts[cell]++;
        if (count < kInline)
        {
            firsts[cell][count] = block;
        }
        else if (count < kMostInCell)
        {
            more.push_back({cell, block});
        }
    }

    // The cell of up to three blocks, in order; kList when they do not fit.
    static Cell pack(const std::array<uint32_t, kInline> &blocks)
    {
        const uint64_t second = blocks[1] == kNone ? kFar : blocks[1] - blocks[0];
        const uint64_t third = blocks[2] == kNone ? kFar : blocks[2] - blocks[0];
        const bool fits = (blocks[1] == kNone || second < kFar) && (blocks[2] == kNone || third < kFar);
        return fits ? blocks[0] | (second | third << kStepBits) << kBlockBits : kList;
    }

    void index()
    {
        size_t deep = 0;
        cells.resize(firsts.size());
        for (size_t i = 0; i < cells.size(); ++i)
        {
            cells[i] = counts[i] == 0            ? kEmpty
                       : counts[i] > kMostInCell ? kDeep
                       : counts[i] > kInline     ? kList
                                                 : pack(firsts[i]);
            deep += cells[i] == kDeep;
            if (cells[i] == kList)
            {
                const size_t place = lists.size();
                const uint32_t here = std::min(counts[i], kInline);
                lists.insert(lists.end(), firsts[i].begin(), firsts[i].begin() + here);
                lists.resize(place + counts[i] + 1, kNone);
                cells[i] |= place;
                counts[i] = static_cast<uint32_t>(place + here); // where its next goes
            }
        }
        for (const auto &[cell, block] : more)
        {
            if (cells[cell] != kDeep)
            {
                lists[counts[cell]++] = block;
            }
        }
        if (2 * deep > cells.size())
        {
            columns = 0;
            cells.clear();
            lists.clear();
        }
    }
};

// Big memory on huge pages where the system has some: a segment anywhere then waits for fewer tables of addresses, and
// building for fewer pages. Only advice.
void useHugePages(void *memory, size_t bytes)
{
    constexpr uintptr_t kPage = 4096;
    const uintptr_t first = (reinterpret_cast<uintptr_t>(memory) + kPage - 1) / kPage * kPage;
    const uintptr_t last = (reinterpret_cast<uintptr_t>(memory) + bytes) / kPage * kPage;
    if (last > first)
    {
        madvise(reinterpret_cast<void *>(first), last - first, MADV_HUGEPAGE);
    }
}

void measure(std::span<const pfTriangle> triangles, pfHierarchy &hierarchy)
{
    float least[3] = {FLT_MAX, FLT_MAX, FLT_MAX}, greatest[3] = {-FLT_MAX, -FLT_MAX, -FLT_MAX};
    for (const pfTriangle &triangle : triangles)
    {
        for (const pfVec3 &corner : triangle.corners)
        {
            for (int axis = 0; axis < 3; ++axis)
            {
                least[axis] = std::min(least[axis], corner[axis]);
                greatest[axis] = std::max(greatest[axis], corner[axis]);
            }
        }
    }
    double size = FLT_TRUE_MIN;
    for (int axis = 0; axis < 3; ++axis)
    {
        hierarchy.least[axis] = least[axis];
        hierarchy.greatest[axis] = greatest[axis];
        size = std::max(size, hierarchy.greatest[axis] - hierarchy.least[axis]);
    }
    int exponent;
    std::frexp(size, &exponent);
    hierarchy.unit = std::ldexp(1, -exponent);
    for (int axis = 0; axis < 3; ++axis)
    {
        hierarchy.sizes[axis] = static_cast<float>((hierarchy.greatest[axis] - hierarchy.least[axis]) * hierarchy.unit);
    }
}

Items itemsOf(std::span<const pfTriangle> triangles, const pfHierarchy &hierarchy)
{
    Items items = std::make_unique_for_overwrite<Item[]>(triangles.size());
    for (size_t i = 0; i < triangles.size(); ++i)
    {
        const pfVec3(&corners)[3] = triangles[i].corners;
        for (int axis = 0; axis < 3; ++axis)
        {
            const float least = std::min({corners[0][axis], corners[1][axis], corners[2][axis]});
            const float greatest = std::max({corners[0][axis], corners[1][axis], corners[2][axis]});
            items[i].least[axis] = static_cast<float>((least - hierarchy.least[axis]) * hierarchy.unit);
            items[i].greatest[axis] = static_cast<float>((greatest - hierarchy.least[axis]) * hierarchy.unit);
        }
        items[i].triangle = items[i].unused = static_cast<uint32_t>(i) | kNormal;
    }
    return items;
}

void setLane(Block &block, uint32_t lane, const pfTriangle &triangle)
{
    for (int corner = 0; corner < 3; ++corner)
    {
        for (int axis = 0; axis < 3; ++axis)
        {
            block.at[axis][corner][lane] = triangle.corners[corner][axis];
        }
    }
    block.prims[lane] = triangle.prim;
}

void clearLane(Block &block, uint32_t lane)
{
    constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
    setLane(block, lane, {{{kNaN, kNaN, kNaN}, {kNaN, kNaN, kNaN}, {kNaN, kNaN, kNaN}}, kNone});
}

// Where the parts of a hierarchy go, one behind the other, each on a boundary of nodes.
struct Layout
{
    size_t bytes = 0;
    bool isPossible = true;

    template<typename Part>
    size_t add(size_t count)
    {
        const size_t offset = bytes;
        isPossible &= count <= (PTRDIFF_MAX - 4096 - bytes) / sizeof(Part);
        bytes += isPossible ? (count * sizeof(Part) + alignof(Node) - 1) / alignof(Node) * alignof(Node) : 0;
        return offset;
    }
};

template<typename Part>
Part *partAt(pfHierarchy &hierarchy, size_t offset)
{
    return reinterpret_cast<Part *>(reinterpret_cast<char *>(&hierarchy) + offset);
}

pfHierarchy *build(std::span<const pfTriangle> triangles, void *arena)
{
    pfHierarchy made = {};
    measure(triangles, made);
    std::vector<Node> nodes;
    Leaves leaves;
    {
        Builder builder(itemsOf(triangles, made), static_cast<uint32_t>(triangles.size()));
        nodes.swap(builder.tree.nodes);
        leaves.swap(builder.tree.leaves);
    }
    const GridBuilder grid(triangles, made, leaves);
    made.columns = grid.columns;
    made.rows = grid.rows;
    made.cellsPerX = grid.perUnit[0];
    made.cellsPerY = grid.perUnit[1];

    Layout layout;
    const size_t offsets[] = {layout.add<Node>(nodes.size()), layout.add<Block>(leaves.size()),
                              layout.add<Cell>(grid.cells.size()), layout.add<uint32_t>(grid.lists.size())};
    void *memory =
        layout.isPossible ? pfMalloc(sizeof(pfHierarchy) + alignof(Node) - 1 + layout.bytes, arena) : nullptr;
    if (memory == nullptr)
    {
        return nullptr;
    }
    useHugePages(memory, sizeof(pfHierarchy) + alignof(Node) - 1 + layout.bytes);
    const auto address = reinterpret_cast<uintptr_t>(memory);
    const size_t start = (address + sizeof(pfHierarchy) + alignof(Node) - 1) / alignof(Node) * alignof(Node) - address;
    made.nodes = start + offsets[0];
    made.blocks = start + offsets[1];
    made.cells = start + offsets[2];
    made.lists = start + offsets[3];
    auto *hierarchy = new (memory) pfHierarchy(made);
    std::copy(nodes.begin(), nodes.end(), partAt<Node>(*hierarchy, made.nodes));
    auto *blocks = partAt<Block>(*hierarchy, made.blocks);
    for (const auto &leaf : leaves)
    {
        for (uint32_t lane = 0; lane < kLanes; ++lane)
        {
            leaf[lane] == kNone ? clearLane(*blocks, lane) : setLane(*blocks, lane, triangles[leaf[lane]]);
        }
        ++blocks;
    }
    std::copy(grid.cells.begin(), grid.cells.end(), partAt<Cell>(*hierarchy, made.cells));
    std::copy(grid.lists.begin(), grid.lists.end(), partAt<uint32_t>(*hierarchy, made.lists));
    return hierarchy;
}

} // namespace

pfHierarchy *pfBuildHierarchy(std::span<const pfTriangle> triangles, void *arena)
{
    if (triangles.size() > kMostTriangles)
    {
        return nullptr;
    }
    try
    {
        return build(triangles, arena);
    }
    catch (const std::bad_alloc &)
    {
        return nullptr;
    }
}

bool pfNearestHit(const pfHierarchy &hierarchy, const pfLocalSegment &segment, pfTriangleHit &hit)
{
    const Line line(segment);
    Search search = {line, segment.most, &hit, nullptr};
    return searchFor(hierarchy, search);
}

void pfAllHits(const pfHierarchy &hierarchy, const pfLocalSegment &segment, std::vector<pfTriangleHit> &hits)
{
    const Line line(segment);
    Search search = {line, segment.most, nullptr, &hits};
    searchFor(hierarchy, search);
}

bool pfHitTriangle(const pfTriangle &triangle, const pfLocalSegment &segment, pfTriangleHit &hit)
{
    const Line line(segment);
    const auto corner = [&](int number, int axis) { return triangle.corners[number][axis]; };
    if (!line.isUsable || !(line.isVertical ? hitCorners<true>(corner, line, hit.t, hit.weights)
                                            : hitCorners<false>(corner, line, hit.t, hit.weights)))
    {
        return false;
    }
    hit.triangle = triangle;
    return true;
}
