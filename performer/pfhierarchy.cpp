#ifndef __clang__
// Otherwise numbers that were stored one by one are read two at once, which has to wait until both stores are done.
#pragma GCC optimize("no-tree-slp-vectorize")
#endif

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
#include <limits>
#include <memory>
#include <new>
#include <numeric>

// A function that is inlined wherever it is used, so that it is compiled for the processor of its caller.
#define INLINE [[gnu::always_inline]] inline

// Before a loop of few rounds: unroll it, so that its vectors stay in registers.
#ifdef __clang__
#define UNROLL _Pragma("unroll")
#else
#define UNROLL _Pragma("GCC unroll 4")
#endif

// Vectors are handed over only where that is inlined.
#pragma GCC diagnostic ignored "-Wpsabi"

// Lanes of triangles, and of boxes. Without AVX2 the compiler makes two of one; a lane's value does not depend on it.
typedef double Doubles __attribute__((vector_size(32)));
typedef int64_t DoubleBits __attribute__((vector_size(32)));
typedef float Floats __attribute__((vector_size(32)));
typedef int32_t FloatBits __attribute__((vector_size(32)));
typedef uint8_t Bytes __attribute__((vector_size(32)));
typedef uint32_t Words __attribute__((vector_size(32)));

namespace
{

constexpr uint32_t kLanes = 4; // triangles in a block
constexpr uint32_t kWidth = 8; // children of a node
constexpr uint32_t kLeaf = 1U << 31;
constexpr uint32_t kNone = UINT32_MAX;

// Of the grid.
constexpr int kLevels = 3; // the cells of each are four times as wide as those of the one before
constexpr int kCellBits = 6;
constexpr double kBlocksInCell = 3;
constexpr int kMargin = 12;     // blocks so near are fetched for the next segment, should it be a step away
constexpr uint32_t kPrints = 8; // are read at once
constexpr uint32_t kMostInCell = 64;
constexpr uint32_t kMostAtPoint = 32; // blocks
constexpr uint32_t kMostHuge = 16;

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

// The grid is for vertical segments: on most of its ways a processor waits for memory, so it is small enough to stay near, and
// leads to the blocks at once. It has squares of cells on several levels. Each block is at home in the cell of its least
// corner, on the first level where it is no larger than a cell, so that it reaches into the next cells at most; blocks are in
// the order of these cells. The box of a block from above is in units of 1/64 cell, rounded down, and its place counts from
// any multiple of 256: nothing that is compared with it is so far away. Before the first column and row there is an empty
// one.
struct Level
{
    uint32_t columns; // a multiple of 4; 0 when no block is there
    uint32_t firstCell;
};

struct Print
{
    uint8_t least[2];
    uint8_t size[2];
};

// Cells come in squares of 4 by 4, so that neighbours are near each other: the number of a cell is the sum of these two.
INLINE uint32_t numberOfColumn(uint32_t column)
{
    return column / 4 * 16 + column % 4;
}

INLINE uint32_t numberOfRow(uint32_t row, uint32_t columns)
{
    return row / 4 * (columns * 4) + row % 4 * 4;
}

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
    size_t firsts; // block of each cell, and of those that are in no cell
    size_t prints;

    double unitsPerLength; // of the finest level; 0 without a grid
    Level levels[kLevels];
    uint32_t cells;
    uint32_t blockCount;
};

namespace
{

template<typename Item>
const Item *at(const pfHierarchy &hierarchy, size_t offset)
{
    return reinterpret_cast<const Item *>(reinterpret_cast<const char *>(&hierarchy) + offset);
}

// Whatever the rounding, a coordinate between two others is not outside theirs.
INLINE uint32_t unitsOf(double coordinate, double least, double perLength)
{
    return static_cast<uint32_t>(static_cast<int32_t>((coordinate - least) * perLength));
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
        const double(&d)[3] = from.direction;
        isVertical = d[0] == 0 && d[1] == 0;
        if (isVertical)
        {
            settle(0, 1, 2);
            return;
        }
        const double sizes[3] = {std::fabs(d[0]), std::fabs(d[1]), std::fabs(d[2])};
        const int greatest = sizes[2] >= sizes[0] && sizes[2] >= sizes[1] ? 2 : sizes[1] >= sizes[0] ? 1 : 0;
        settle(greatest == 0 ? 1 : 0, greatest == 2 ? 1 : 2, greatest);
    }

private:
    INLINE void settle(int axisX, int axisY, int axisZ)
    {
        const double(&o)[3] = segment.origin, (&d)[3] = segment.direction;
        x = axisX;
        y = axisY;
        z = axisZ;
        const double size = std::fabs(d[z]);
        // 0 but for what is not finite.
        const double none = (((o[0] + o[1]) + (o[2] + d[0])) + (d[1] + d[2])) * 0;
        isUsable = none == 0 && size > 0;
        // The exponent, read off the bits; of denormal numbers it is not right, but small enough.
        const int exponent = static_cast<int>(std::bit_cast<uint64_t>(size) >> 52) - 1023;
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

template<bool hasAvx2>
INLINE unsigned bitsOfFour(const DoubleBits &mask)
{
#ifndef __clang__
    if constexpr (hasAvx2)
    {
        unsigned bits;
        asm("vmovmskpd %1, %0" : "=r"(bits) : "x"(mask));
        return bits;
    }
#endif
    __m128d halves[2];
    std::memcpy(halves, &mask, sizeof mask);
    return static_cast<unsigned>(_mm_movemask_pd(halves[0]) | _mm_movemask_pd(halves[1]) << 2);
}

template<bool hasAvx2>
INLINE unsigned bitsOfEight(const FloatBits &mask)
{
#ifndef __clang__
    if constexpr (hasAvx2)
    {
        unsigned bits;
        asm("vmovmskps %1, %0" : "=r"(bits) : "x"(mask));
        return bits;
    }
#endif
    __m128 halves[2];
    std::memcpy(halves, &mask, sizeof mask);
    return static_cast<unsigned>(_mm_movemask_ps(halves[0]) | _mm_movemask_ps(halves[1]) << 4);
}

template<bool hasAvx2>
INLINE Bytes greaterOf(const Bytes &a, const Bytes &b)
{
    Bytes greater;
#ifndef __clang__
    if constexpr (hasAvx2)
    {
        asm("vpmaxub %2, %1, %0" : "=x"(greater) : "x"(a), "x"(b));
        return greater;
    }
#endif
    __m128i halves[2][2];
    std::memcpy(halves[0], &a, sizeof a);
    std::memcpy(halves[1], &b, sizeof b);
    const __m128i both[2] = {_mm_max_epu8(halves[0][0], halves[1][0]), _mm_max_epu8(halves[0][1], halves[1][1])};
    std::memcpy(&greater, both, sizeof both);
    return greater;
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
INLINE unsigned hitBlock(const Block &block, const Line &line, Sides<Doubles> &sides)
{
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
    return bitsOfFour<hasAvx2>(isHit(sides));
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

// Where the line hits a triangle, of corners corner(number, axis); false where it only seemed to.
template<bool isVertical, typename Corner>
INLINE bool placeHit(const Corner &corner, const Line &line, const Sides<double> &sides, double &t,
                     double (&weights)[2])
{
    const double(&e)[3] = sides.edges, (&z)[3] = sides.z;
    t = ((e[0] * z[0] + e[1] * z[1]) + e[2] * z[2]) / (sides.sum * line.direction[2]) * line.unscale;
    weights[0] = e[1] / sides.sum;
    weights[1] = e[2] / sides.sum;
    return std::fabs(t) <= DBL_MAX &&
           (isVertical ? isAbove(sides.x) && isAbove(sides.y) : settle(corner, line.segment, t));
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
    return isHit(sides) && placeHit<isVertical>(corner, line, sides, t, weights);
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

template<bool isVertical>
INLINE void takeHits(const Block &block, unsigned lanes, const Sides<Doubles> &measured, Search &search)
{
    for (; lanes != 0; lanes &= lanes - 1)
    {
        const auto lane = static_cast<unsigned>(std::countr_zero(lanes));
        const auto corner = [&](int number, int axis) { return block.at[axis][number][lane]; };
        Sides<double> sides;
        UNROLL
        for (int i = 0; i < 3; ++i)
        {
            sides.x[i] = measured.x[i][lane];
            sides.y[i] = measured.y[i][lane];
            sides.z[i] = corner(i, isVertical ? 2 : search.line.z) - search.line.origin[2];
            sides.edges[i] = measured.edges[i][lane];
        }
        sides.sum = measured.sum[lane];
        double t, weights[2];
        if (!placeHit<isVertical>(corner, search.line, sides, t, weights) || !(t >= search.line.segment.least) ||
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

// Of the blocks that the hierarchy leads to few have a hit: worth no room in what is inlined everywhere.
template<bool isVertical>
[[gnu::noinline]] void takeHitsApart(const Block &block, unsigned lanes, const Sides<Doubles> &measured, Search &search)
{
    takeHits<isVertical>(block, lanes, measured, search);
}

// Whether any triangle was hit.
template<bool isVertical, bool hasAvx2>
INLINE bool testBlock(const Block &block, Search &search)
{
    Sides<Doubles> sides;
    const unsigned hit = hitBlock<isVertical, hasAvx2>(block, search.line, sides);
    if (hit != 0)
    {
        const Sides<Doubles> kept = sides; // so that the others stay in registers
        takeHitsApart<isVertical>(block, hit, kept, search);
    }
    return hit != 0;
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
template<bool hasAvx2>
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
    return bitsOfEight<hasAvx2>(near <= far);
}

INLINE void fetchBlock(const Block &block)
{
    __builtin_prefetch(&block);
    __builtin_prefetch(&block.at[1][1]);
    __builtin_prefetch(&block.prims);
}

INLINE void fetchNode(const Node &node)
{
    __builtin_prefetch(node.sides[0][0]);
    __builtin_prefetch(node.sides[0][2]);
    __builtin_prefetch(node.sides[1][1]);
    __builtin_prefetch(node.children);
}

template<bool hasAvx2>
INLINE unsigned leavesOf(const Node &node)
{
    FloatBits children;
    std::memcpy(&children, node.children, sizeof children);
    return bitsOfEight<hasAvx2>(children);
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
    size_t open = 1;
    stack[0] = {0, 0};
    float most = 1;
    while (open != 0)
    {
        --open;
        if (stack[open].s > most)
        {
            continue;
        }
        const Node &node = nodes[stack[open].child];
        alignas(32) float s[kWidth];
        const unsigned entered = enterNode<hasAvx2>(node, part, most, s), leaves = leavesOf<hasAvx2>(node);
        for (unsigned left = entered & leaves; left != 0; left &= left - 1)
        {
            fetchBlock(blocks[node.children[std::countr_zero(left)] & ~kLeaf]);
        }
        const size_t first = open;
        for (unsigned left = entered & ~leaves; left != 0; left &= left - 1)
        {
            const auto i = static_cast<unsigned>(std::countr_zero(left));
            fetchNode(nodes[node.children[i]]);
            // The nearest on top.
            size_t place = open++;
            for (; place > first && stack[place - 1].s < s[i]; --place)
            {
                stack[place] = stack[place - 1];
            }
            stack[place] = {s[i], node.children[i]};
        }
        // At once: whether a child on the stack is a node or a block would be foretold badly.
        for (unsigned left = entered & leaves; left != 0; left &= left - 1)
        {
            const uint32_t block = node.children[std::countr_zero(left)] & ~kLeaf;
            if (s[std::countr_zero(left)] <= most && testBlock<isVertical, hasAvx2>(blocks[block], search))
            {
                most = partUpTo(part, search.most);
            }
        }
    }
}

// Blocks whose prints a point is in.
struct Found
{
    uint32_t blocks[kMostAtPoint + 4 * kPrints];
    uint32_t count = 0;
};

// Blocks from a first one on.
struct Run
{
    uint32_t first;
    uint32_t count;
};

INLINE Bytes everywhere(uint32_t bytes)
{
    return reinterpret_cast<Bytes>(Words{} + bytes);
}

// Of the first prints of a run: those that a point is in, of any run, and those of the run that it is in or within a margin.
template<bool hasAvx2>
INLINE void lookAt(const Print *prints, const Run &run, const Bytes &point, unsigned &in, unsigned &near)
{
    constexpr FloatBits kNumbers = {0, 1, 2, 3, 4, 5, 6, 7};
    Bytes eight;
    std::memcpy(&eight, prints + run.first, sizeof eight);
    // In the upper halves everything is in.
    const Bytes sizes = reinterpret_cast<Bytes>(reinterpret_cast<Words>(eight) >> 16 | 0xffff0000);
    const Bytes nearSizes = sizes + everywhere(2 * kMargin * 0x101);
    const Bytes way = point - eight, nearWay = way + everywhere(kMargin * 0x101);
    const Bytes most = greaterOf<hasAvx2>(way, sizes), nearMost = greaterOf<hasAvx2>(nearWay, nearSizes);
    in = bitsOfEight<hasAvx2>(reinterpret_cast<FloatBits>(most) == reinterpret_cast<FloatBits>(sizes));
    near = bitsOfEight<hasAvx2>((reinterpret_cast<FloatBits>(nearMost) == reinterpret_cast<FloatBits>(nearSizes)) &
                                (kNumbers < FloatBits{} + static_cast<int32_t>(run.count)));
}

// False when there are too many. Four runs at a time, and eight blocks of each, so that next to nothing depends on how many
// there are, which is foretold badly.
template<bool hasAvx2>
INLINE bool lookInto(const pfHierarchy &hierarchy, Run (&runs)[4], uint32_t x, uint32_t y, Found &found)
{
    const auto *prints = at<Print>(hierarchy, hierarchy.prints);
    const auto *blocks = at<Block>(hierarchy, hierarchy.blocks);
    const Bytes point = everywhere((x & 255) | (y & 255) << 8);
    for (;;)
    {
        unsigned in = 0, near = 0;
        uint32_t most = 0;
        UNROLL
        for (unsigned i = 0; i < 4; ++i)
        {
            unsigned inRun, nearRun;
            lookAt<hasAvx2>(prints, runs[i], point, inRun, nearRun);
            in |= inRun << kPrints * i;
            near |= nearRun << kPrints * i;
            most = std::max(most, runs[i].count);
        }
        const auto blockOf = [&](unsigned bits)
        {
            const auto i = static_cast<uint32_t>(std::countr_zero(bits));
            return runs[i / kPrints].first + i % kPrints;
        };
        for (unsigned left = in & near; left != 0; left &= left - 1)
        {
            const uint32_t block = blockOf(left);
            fetchBlock(blocks[block]);
            found.blocks[found.count++] = block;
        }
        for (unsigned left = near & ~in; left != 0; left &= left - 1)
        {
            fetchBlock(blocks[blockOf(left)]);
        }
        if (most > kMostInCell || found.count > kMostAtPoint)
        {
            return false;
        }
        if (most <= kPrints)
        {
            return true;
        }
        for (Run &run : runs)
        {
            const uint32_t done = std::min(run.count, kPrints);
            run = {run.first + done, run.count - done};
        }
    }
}

// False where the hierarchy is better.
template<bool hasAvx2>
INLINE bool lookIntoGrid(const pfHierarchy &hierarchy, double x, double y, Found &found)
{
    const auto *firsts = at<uint32_t>(hierarchy, hierarchy.firsts);
    const uint32_t unitX = unitsOf(x, hierarchy.least[0], hierarchy.unitsPerLength);
    const uint32_t unitY = unitsOf(y, hierarchy.least[1], hierarchy.unitsPerLength);
    for (int i = 0; i < kLevels; ++i)
    {
        const Level &level = hierarchy.levels[i];
        if (level.columns == 0)
        {
            continue;
        }
        const uint32_t levelX = unitX >> 2 * i, levelY = unitY >> 2 * i;
        const uint32_t column = levelX >> kCellBits, row = levelY >> kCellBits;
        const uint32_t columns[2] = {numberOfColumn(column + 1), numberOfColumn(column)};
        const uint32_t rows[2] = {numberOfRow(row + 1, level.columns), numberOfRow(row, level.columns)};
        Run runs[4];
        UNROLL
        for (uint32_t j = 0; j < 4; ++j)
        {
            const uint32_t *cell = firsts + level.firstCell + columns[j % 2] + rows[j / 2];
            runs[j] = {cell[0], cell[1] - cell[0]};
        }
        if (!lookInto<hasAvx2>(hierarchy, runs, levelX, levelY, found))
        {
            return false;
        }
    }
    const uint32_t huge = firsts[hierarchy.cells];
    if (huge == hierarchy.blockCount)
    {
        return true;
    }
    Run runs[4] = {{huge, hierarchy.blockCount - huge}, {}, {}, {}};
    return lookInto<hasAvx2>(hierarchy, runs, 0, 0, found);
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
    Found found;
    if (hierarchy.unitsPerLength == 0 || !lookIntoGrid<hasAvx2>(hierarchy, x, y, found))
    {
        return false;
    }
    const Block *blocks = at<Block>(hierarchy, hierarchy.blocks);
    for (uint32_t i = 0; i < found.count; ++i)
    {
        const Block &block = blocks[found.blocks[i]];
        Sides<Doubles> sides;
        const unsigned hit = hitBlock<true, hasAvx2>(block, search.line, sides);
        takeHits<true>(block, hit, sides, search);
    }
    return true;
}

template<bool hasAvx2>
INLINE void searchTree(const pfHierarchy &hierarchy, Search &sought)
{
    if (sought.line.isVertical)
    {
        search<true, hasAvx2>(hierarchy, sought);
    }
    else
    {
        search<false, hasAvx2>(hierarchy, sought);
    }
}

template<bool hasAvx2, typename SearchTree>
INLINE bool searchAnyWay(const pfHierarchy &hierarchy, const pfLocalSegment &segment, pfTriangleHit *nearest,
                         std::vector<pfTriangleHit> *all, SearchTree tree)
{
    const Line line(segment);
    const bool isEmpty = hierarchy.nodes == hierarchy.blocks;
    if (isEmpty || !line.isUsable)
    {
        return false;
    }
    Search sought = {line, segment.most, nearest, all};
    if (!line.isVertical || !searchGrid<hasAvx2>(hierarchy, sought))
    {
        tree(hierarchy, sought);
    }
    return sought.found;
}

// Tests compile this a second time with TOLVIN_WITHOUT_AVX2, so that the other code is tested on processors that have it.
// The tree is apart because it would take all registers.
#ifndef TOLVIN_WITHOUT_AVX2
[[gnu::target("avx2"), gnu::noinline]] void searchTreeAvx2(const pfHierarchy &hierarchy, Search &sought)
{
    searchTree<true>(hierarchy, sought);
}

[[gnu::target("avx2")]] bool searchAvx2(const pfHierarchy &hierarchy, const pfLocalSegment &segment,
                                        pfTriangleHit *nearest, std::vector<pfTriangleHit> *all)
{
    return searchAnyWay<true>(hierarchy, segment, nearest, all, searchTreeAvx2);
}
#endif

[[gnu::noinline]] void searchTreePlain(const pfHierarchy &hierarchy, Search &sought)
{
    searchTree<false>(hierarchy, sought);
}

bool searchPlain(const pfHierarchy &hierarchy, const pfLocalSegment &segment, pfTriangleHit *nearest,
                 std::vector<pfTriangleHit> *all)
{
    return searchAnyWay<false>(hierarchy, segment, nearest, all, searchTreePlain);
}

// One of nearest and all is null.
bool searchFor(const pfHierarchy &hierarchy, const pfLocalSegment &segment, pfTriangleHit *nearest,
               std::vector<pfTriangleHit> *all)
{
#ifndef TOLVIN_WITHOUT_AVX2
    if (__builtin_cpu_supports("avx2"))
    {
        return searchAvx2(hierarchy, segment, nearest, all);
    }
#endif
    return searchPlain(hierarchy, segment, nearest, all);
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
        if (count != 0)
        {
            build(measured(0, count, 0), 0);
        }
    }

private:
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

    uint32_t addLeaf(const Range &range)
    {
        std::array<uint32_t, kLanes> &leaf = tree.leaves.emplace_back();
        for (uint32_t i = 0; i < kLanes; ++i)
        {
            leaf[i] = i < range.size() ? items[range.buffer][range.begin + i].triangle & ~kNormal : kNone;
        }
        return static_cast<uint32_t>(tree.leaves.size() - 1) | kLeaf;
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

    uint32_t build(const Range &range, int level)
    {
        if (range.size() <= kLanes && level > 0)
        {
            return addLeaf(range);
        }
        Range children[kWidth];
        const uint32_t count = divide(range, level, children);
        const auto number = static_cast<uint32_t>(tree.nodes.size());
        setBoxes(tree.nodes.emplace_back(), children, count);
        for (uint32_t i = 0; i < count; ++i)
        {
            const uint32_t child = build(children[i], level + 1);
            tree.nodes[number].children[i] = child;
        }
        return number;
    }
};

//
// The grid.
//

// Puts the blocks in order of their cells, and the numbers of the blocks in the nodes right.
class GridBuilder
{
public:
    std::vector<Print> prints;
    std::vector<uint32_t> firsts;

    GridBuilder(std::span<const pfTriangle> theTriangles, pfHierarchy &theHierarchy, Tree &theTree)
        : triangles(theTriangles),
          hierarchy(theHierarchy),
          tree(theTree)
    {
        const double width = hierarchy.greatest[0] - hierarchy.least[0];
        const double height = hierarchy.greatest[1] - hierarchy.least[1];
        const auto count = static_cast<uint32_t>(tree.leaves.size());
        const double cell = std::sqrt(width / count * kBlocksInCell) * std::sqrt(height);
        if (!(cell > 0) || std::max(width, height) / cell > std::min(kMostColumns, 4.0 * count))
        {
            return;
        }
        hierarchy.unitsPerLength = (1 << kCellBits) / cell;
        hierarchy.blockCount = count;
        prints.resize(count);
        cells.resize(count);
        numberCells(width, height);
        for (uint32_t i = 0; i < count; ++i)
        {
            settle(i);
        }
        if (!sort())
        {
            hierarchy.unitsPerLength = 0;
        }
    }

private:
    static constexpr double kMostColumns = 1 << 20;

    std::span<const pfTriangle> triangles;
    pfHierarchy &hierarchy;
    Tree &tree;
    std::vector<uint32_t> cells; // of the blocks

    void numberCells(double width, double height)
    {
        for (int i = 0; i < kLevels; ++i)
        {
            const int bits = kCellBits + 2 * i;
            const uint32_t columns = ((unitsOf(width, 0, hierarchy.unitsPerLength) >> bits) + 1) / 4 * 4 + 4;
            const uint32_t rows = ((unitsOf(height, 0, hierarchy.unitsPerLength) >> bits) + 1) / 4 * 4 + 4;
            hierarchy.levels[i] = {columns, hierarchy.cells};
            hierarchy.cells += columns * rows;
        }
    }

    // The cell and the print of a block.
    void settle(uint32_t block)
    {
        uint32_t least[2], greatest[2];
        for (int axis = 0; axis < 2; ++axis)
        {
            float from = FLT_MAX, to = -FLT_MAX;
            for (const uint32_t triangle : tree.leaves[block])
            {
                if (triangle != kNone)
                {
                    const pfVec3(&corners)[3] = triangles[triangle].corners;
                    from = std::min({from, corners[0][axis], corners[1][axis], corners[2][axis]});
                    to = std::max({to, corners[0][axis], corners[1][axis], corners[2][axis]});
                }
            }
            least[axis] = unitsOf(from, hierarchy.least[axis], hierarchy.unitsPerLength);
            greatest[axis] = unitsOf(to, hierarchy.least[axis], hierarchy.unitsPerLength);
        }
        cells[block] = hierarchy.cells;
        prints[block] = {};
        for (int i = 0; i < kLevels; ++i)
        {
            const uint32_t x = least[0] >> 2 * i, y = least[1] >> 2 * i;
            const uint32_t sizeX = (greatest[0] >> 2 * i) - x, sizeY = (greatest[1] >> 2 * i) - y;
            if (std::max(sizeX, sizeY) >> kCellBits == 0)
            {
                const Level &level = hierarchy.levels[i];
                cells[block] = level.firstCell + numberOfColumn((x >> kCellBits) + 1) +
                               numberOfRow((y >> kCellBits) + 1, level.columns);
                prints[block] = {{static_cast<uint8_t>(x), static_cast<uint8_t>(y)},
                                 {static_cast<uint8_t>(sizeX), static_cast<uint8_t>(sizeY)}};
                return;
            }
        }
    }

    // False when too many blocks are in no cell.
    bool sort()
    {
        std::vector<uint32_t> next(hierarchy.cells + 2);
        for (const uint32_t cell : cells)
        {
            ++next[cell + 1];
        }
        std::partial_sum(next.begin(), next.end(), next.begin());
        firsts.assign(next.begin(), next.end() - 1);
        if (cells.size() - firsts.back() > kMostHuge)
        {
            return false;
        }
        for (int i = 0; i < kLevels; ++i)
        {
            Level &level = hierarchy.levels[i];
            const uint32_t end = i + 1 < kLevels ? hierarchy.levels[i + 1].firstCell : hierarchy.cells;
            level.columns = firsts[level.firstCell] < firsts[end] ? level.columns : 0;
        }
        Leaves leaves(cells.size());
        std::vector<Print> sorted(cells.size() + kPrints); // the last cell may begin behind all
        for (size_t i = 0; i < cells.size(); ++i)
        {
            const uint32_t number = next[cells[i]]++;
            leaves[number] = tree.leaves[i];
            sorted[number] = prints[i];
            cells[i] = number;
        }
        tree.leaves.swap(leaves);
        prints.swap(sorted);
        for (Node &node : tree.nodes)
        {
            for (uint32_t i = 0; i < kWidth; ++i)
            {
                uint32_t &child = node.children[i];
                child = (child & kLeaf) != 0 ? cells[child & ~kLeaf] | kLeaf : child;
            }
        }
        return true;
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
    Tree tree;
    {
        Builder builder(itemsOf(triangles, made), static_cast<uint32_t>(triangles.size()));
        std::swap(tree, builder.tree);
    }
    const GridBuilder grid(triangles, made, tree);
    const auto &[nodes, leaves] = tree;

    Layout layout;
    const size_t offsets[] = {layout.add<Node>(nodes.size()), layout.add<Block>(leaves.size()),
                              layout.add<uint32_t>(grid.firsts.size()), layout.add<Print>(grid.prints.size())};
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
    made.firsts = start + offsets[2];
    made.prints = start + offsets[3];
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
    std::copy(grid.firsts.begin(), grid.firsts.end(), partAt<uint32_t>(*hierarchy, made.firsts));
    std::copy(grid.prints.begin(), grid.prints.end(), partAt<Print>(*hierarchy, made.prints));
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
    return searchFor(hierarchy, segment, &hit, nullptr);
}

void pfAllHits(const pfHierarchy &hierarchy, const pfLocalSegment &segment, std::vector<pfTriangleHit> &hits)
{
    searchFor(hierarchy, segment, nullptr, &hits);
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
