// Intersection beside a reference that tests every triangle in world coordinates, in long double precision.
#include "support/capture.h"

#include <gtest/gtest.h>

#include <tolvin/performer/pf.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <deque>
#include <functional>
#include <new>
#include <random>
#include <string>
#include <thread>
#include <vector>

// Allocations of the code under test of more bytes than this fail.
static size_t greatestAllocation = SIZE_MAX;

__attribute__((noinline)) void *operator new(size_t bytes)
{
    void *memory = bytes <= greatestAllocation ? malloc(bytes) : nullptr;
    return memory != nullptr ? memory : throw std::bad_alloc();
}

__attribute__((noinline)) void operator delete(void *memory) noexcept
{
    free(memory);
}

__attribute__((noinline)) void operator delete(void *memory, size_t) noexcept
{
    free(memory);
}

namespace
{

using Real = long double;
using Vec = std::array<Real, 3>;
using Corner = std::array<float, 3>;
using Affine = std::array<Vec, 4>; // rows, without the last column

void *const arena = (pfSharedArenaSize(8 << 20), pfGetSharedArena());

Vec plus(const Vec &a, Real factor, const Vec &b)
{
    return {a[0] + factor * b[0], a[1] + factor * b[1], a[2] + factor * b[2]};
}

Vec operator-(const Vec &a, const Vec &b)
{
    return plus(a, -1, b);
}

Vec cross(const Vec &a, const Vec &b)
{
    return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}

Real dot(const Vec &a, const Vec &b)
{
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

Real size(const Vec &a)
{
    return std::sqrt(dot(a, a));
}

Vec transformed(const Vec &v, const Affine &m, Real w = 1)
{
    return plus(plus(plus({w * m[3][0], w * m[3][1], w * m[3][2]}, v[0], m[0]), v[1], m[1]), v[2], m[2]);
}

template<typename Array>
Vec vec(const Array &a)
{
    return {a[0], a[1], a[2]};
}

pfNode *asNode(void *node)
{
    return static_cast<pfNode *>(node);
}

ptrdiff_t linesOf(const std::function<void()> &action)
{
    return std::ranges::count(capturedStderr(action), '\n');
}

template<typename Value>
Value ask(const pfHit *hit, unsigned int query)
{
    Value value;
    EXPECT_EQ(pfQueryHit(hit, query, &value), 1);
    return value;
}

// A triangle that a segment may meet, on one of the ways to it.
struct Triangle
{
    pfGeoSet *gset;
    pfGeode *geode;
    int prim;
    std::array<Corner, 3> corners;
    Affine toWorld;
    Real reach; // greatest coordinate on the way

    bool isDistinct() const
    {
        return corners[0] != corners[1] && corners[1] != corners[2] && corners[2] != corners[0];
    }
    Vec world(size_t i) const
    {
        return transformed(vec(corners[i]), toWorld);
    }
};

struct Expected
{
    const Triangle *triangle;
    Real t, u, v;
    Real tError, uvError; // that double precision may make
    bool isSure;
    bool isFound;
};

void collect(pfGeode *geode, pfGeoSet *gset, const Affine &toWorld, Real reach, std::vector<Triangle> &to)
{
    void *list;
    unsigned short *indices;
    pfGetGSetAttrLists(gset, PFGS_COORD3, &list, &indices);
    const int type = pfGetGSetPrimType(gset);
    for (int prim = 0, start = 0, length; prim < pfGetGSetNumPrims(gset); ++prim, start += length)
    {
        constexpr int kLengths[] = {1, 2, 3, 4};
        length = type < PFGS_LINESTRIPS ? kLengths[type] : pfGetGSetPrimLengths(gset)[prim];
        const bool isSolid = type != PFGS_POINTS && type != PFGS_LINES && type != PFGS_LINESTRIPS;
        for (int i = 2; isSolid && i < length; ++i)
        {
            const bool isStrip = type == PFGS_TRISTRIPS, isOdd = isStrip && i % 2 == 1;
            const int at[] = {isStrip ? i - 2 + isOdd : 0, i - 1 - isOdd, i};
            Triangle triangle = {gset, geode, prim, {}, toWorld, reach};
            bool isFinite = true;
            for (int k = 0; k < 3; ++k)
            {
                const int vertex = indices != nullptr ? indices[start + at[k]] : start + at[k];
                std::copy_n(static_cast<pfVec3 *>(list)[vertex], 3, triangle.corners[k].begin());
                isFinite =
                    isFinite && std::ranges::all_of(triangle.corners[k], [](float x) { return std::isfinite(x); });
                triangle.reach = std::max(triangle.reach, isFinite ? size(triangle.world(k)) : 0);
            }
            if (isFinite && triangle.isDistinct())
            {
                to.push_back(triangle);
            }
        }
    }
}

void collect(pfNode *node, unsigned int mask, Affine toWorld, Real reach, std::vector<Triangle> &to)
{
    if ((pfGetNodeTravMask(node, PFTRAV_ISECT) & mask) == 0)
    {
        return;
    }
    if (pfIsOfType(node, pfGetGeodeClassType()))
    {
        pfGeode *geode = reinterpret_cast<pfGeode *>(node);
        for (int i = 0; i < pfGetNumGSets(geode); ++i)
        {
            collect(geode, pfGetGSet(geode, i), toWorld, reach, to);
        }
        return;
    }
    pfGroup *group = reinterpret_cast<pfGroup *>(node);
    int first = 0, last = pfGetNumChildren(group);
    if (pfIsOfType(node, pfGetSCSClassType()))
    {
        pfMatrix m;
        pfGetSCSMat(reinterpret_cast<pfSCS *>(node), m);
        const Real determinant = dot(vec(m[0]), cross(vec(m[1]), vec(m[2])));
        if (!(std::fabs(determinant) > 1e-9L && std::isfinite(determinant)))
        {
            return;
        }
        const Affine above = toWorld;
        for (size_t row = 0; row < 4; ++row)
        {
            toWorld[row] = transformed(vec(m[row]), above, row == 3);
        }
        reach = std::max(reach, size(toWorld[3]));
    }
    if (pfIsOfType(node, pfGetSwitchClassType()))
    {
        const int value = pfGetSwitchVal(reinterpret_cast<pfSwitch *>(node));
        first = value == PFSWITCH_ON ? first : std::max(value, 0);
        last = value == PFSWITCH_ON ? last : std::min(value + 1, last);
    }
    last = pfIsOfType(node, pfGetLODClassType()) ? std::min(last, 1) : last;
    for (; first < last; ++first)
    {
        collect(pfGetChild(group, first), mask, toWorld, reach, to);
    }
}

// The line through a plane, and where in the triangle (Möller and Trumbore 1997, without its early ends). Which hits are
// sure follows from the errors that differences, products and transforms of this size may have.
bool expect(const Triangle &triangle, const pfSeg &seg, Expected &hit)
{
    constexpr Real kError = 1e-13L;
    const Vec a = triangle.world(0), e1 = triangle.world(1) - a, e2 = triangle.world(2) - a;
    const Vec s = vec(seg.pos) - a, d = vec(seg.dir), n = cross(e1, e2), q = cross(s, d);
    const Real det = -dot(d, n), edge = std::max(size(e1), size(e2));
    const Real reach = std::max({triangle.reach, size(vec(seg.pos)), size(s), edge});
    hit = {&triangle, dot(s, n) / det, dot(e2, q) / det, -dot(e1, q) / det, 0, 0, false, false};
    hit.uvError = kError * size(d) * reach * reach / std::fabs(det);
    hit.tError = kError * reach * edge * edge / std::fabs(det) + std::fabs(hit.t) * hit.uvError;
    const Real margin = std::min({hit.u, hit.v, 1 - hit.u - hit.v}), end = std::min(hit.t, seg.length - hit.t);
    hit.isSure = hit.uvError < 0.1L && margin > hit.uvError && end > hit.tError;
    return !(hit.uvError < 0.1L) || (margin >= -hit.uvError && end >= -hit.tError);
}

struct Counts
{
    int segments, hits, sure;
};

// Whether point, triangle and matrix of a hit are those of an expected one.
bool isThat(const pfHit *hit, const Expected &expected)
{
    const Triangle &triangle = *expected.triangle;
    auto corners = ask<std::array<Corner, 3>>(hit, PFQHIT_TRI);
    std::ranges::rotate(corners, std::ranges::find(corners, triangle.corners[0]));
    const Real t = ask<float>(hit, PFQHIT_DISTANCE);
    bool isSame = triangle.gset == ask<pfGeoSet *>(hit, PFQHIT_GSET) &&
                  triangle.geode == ask<pfGeode *>(hit, PFQHIT_GEODE) && triangle.prim == ask<int>(hit, PFQHIT_PRIM) &&
                  triangle.corners == corners && !(std::fabs(t - expected.t) > expected.tError + 1e-7L * t);
    const auto matrix = ask<std::array<std::array<float, 4>, 4>>(hit, PFQHIT_XFORM);
    for (size_t row = 0; isSame && row < 4; ++row)
    {
        isSame = size(vec(matrix[row]) - triangle.toWorld[row]) <= 2e-7L * size(triangle.toWorld[row]) &&
                 matrix[row][3] == (row == 3);
    }
    return isSame;
}

void checkPlace(const pfHit *hit, const Expected &expected)
{
    const Triangle &triangle = *expected.triangle;
    const Vec a = vec(triangle.corners[0]), e1 = vec(triangle.corners[1]) - a, e2 = vec(triangle.corners[2]) - a;
    const Vec point = plus(plus(a, expected.u, e1), expected.v, e2), normal = cross(e1, e2);
    const Real far = size(point), edge = std::max(size(e1), size(e2)), error = 4 * expected.uvError * edge;
    EXPECT_LE(size(vec(ask<Corner>(hit, PFQHIT_POINT)) - point), 1.1e-7L * far + 1e-15L * edge + error);
    EXPECT_GT(dot(vec(ask<Corner>(hit, PFQHIT_NORM)), normal), 0.9999L * size(normal));
}

void check(pfNode *top, pfSegSet &set, const std::vector<Triangle> &triangles, Counts &counts)
{
    std::array<pfHit **, PFIS_MAX_SEGS> hits, nearest;
    set.mode = PFTRAV_IS_PRIM | PFTRAV_IS_NORM;
    EXPECT_LE(pfNodeIsectSegs(top, &set, hits.data()), PFIS_MAX_SEGS);
    for (size_t i = 0; i < PFIS_MAX_SEGS; ++i)
    {
        std::vector<Expected> expected;
        Expected one;
        for (const Triangle &triangle : triangles)
        {
            if (expect(triangle, set.segs[i], one))
            {
                expected.push_back(one);
            }
        }
        float last = 0;
        for (pfHit **hit = hits[i]; *hit != nullptr; ++hit, ++counts.hits)
        {
            const auto found =
                std::ranges::find_if(expected, [=](const Expected &e) { return !e.isFound && isThat(*hit, e); });
            ASSERT_NE(found, expected.end()) << "a hit too many, segment " << i;
            found->isFound = true;
            if (found->isSure)
            {
                checkPlace(*hit, *found);
            }
            EXPECT_LE(last, ask<float>(*hit, PFQHIT_DISTANCE));
            last = ask<float>(*hit, PFQHIT_DISTANCE);
        }
        counts.sure += static_cast<int>(std::ranges::count_if(expected, &Expected::isSure));
        ++counts.segments;
        EXPECT_TRUE(std::ranges::all_of(expected, [](const Expected &e) { return e.isFound || !e.isSure; })) << i;
    }
    std::array<std::pair<int, Corner>, PFIS_MAX_SEGS> first;
    const auto firstOf = [](pfHit *hit)
    { return hit == nullptr ? std::pair(-1, Corner{}) : std::pair(ask<int>(hit, 6), Corner{ask<float>(hit, 3)}); };
    std::ranges::transform(hits, first.begin(), [=](pfHit **of) { return firstOf(of[0]); });
    set.mode |= PFTRAV_IS_NEAREST;
    pfNodeIsectSegs(top, &set, nearest.data());
    for (size_t i = 0; i < PFIS_MAX_SEGS; ++i)
    {
        ASSERT_EQ(firstOf(nearest[i][0]), first[i]) << "nearest of segment " << i;
        ASSERT_TRUE(nearest[i][0] == nullptr || nearest[i][1] == nullptr);
    }
}

// A random graph. Its kinds of coordinates: small whole numbers, far from the origin, huge, slivers, anything.
struct Scene
{
    explicit Scene(unsigned int seed) : random(seed), style(seed % 5)
    {
        top = node(4);
    }

    int number(int least, int greatest)
    {
        return std::uniform_int_distribution(least, greatest)(random);
    }

    float real(float greatest)
    {
        return std::uniform_real_distribution(-greatest, greatest)(random);
    }

    Corner point()
    {
        const float whole[] = {static_cast<float>(number(-3, 3)), static_cast<float>(number(-3, 3)),
                               static_cast<float>(number(-3, 3))};
        const float scale = std::pow(10.0f, static_cast<float>(number(6, 20)));
        switch (style)
        {
        case 0:
            return {whole[0], whole[1], whole[2]};
        case 1:
            return {99980 + whole[0] + real(1), -99990 + whole[1] + real(1), 1000 + whole[2] + real(1)};
        case 2:
            return {real(scale), real(scale), real(number(0, 1) == 0 ? scale : 1)};
        case 3:
            return {real(5), whole[0] + real(1e-4f), whole[1] + real(1e-6f)};
        default:
            return {real(5), real(5), number(0, 40) == 0 ? NAN : real(5)};
        }
    }

    void fill(std::vector<Corner> &list)
    {
        std::ranges::generate(list, [this] { return point(); });
    }

    pfGeoSet *gset()
    {
        const int prims = number(1, 6), type = number(PFGS_POINTS, PFGS_POLYS);
        std::vector<int> &length = lengths.emplace_back(prims);
        std::ranges::generate(length, [this] { return number(0, 6); });
        std::vector<Corner> &list = points.emplace_back(prims * 6);
        std::vector<unsigned short> &index = indices.emplace_back(prims * 6);
        std::ranges::generate(index, [&] { return static_cast<unsigned short>(number(0, prims * 6 - 1)); });
        fill(list);
        pfGeoSet *made = pfNewGSet(arena);
        pfGSetPrimType(made, type), pfGSetNumPrims(made, prims), pfGSetPrimLengths(made, length.data());
        gsets.push_back(made);
        setPoints(gsets.size() - 1);
        return made;
    }

    void setPoints(size_t i)
    {
        pfGSetAttr(gsets[i], PFGS_COORD3, PFGS_PER_VERTEX, points[i].data(), i % 2 ? indices[i].data() : nullptr);
    }

    void setMatrix(pfDCS *dcs)
    {
        pfMatrix m;
        pfMakeEulerMat(m, number(-3, 3) * 30.0f, number(0, 1) * real(180), number(0, 1) * real(180));
        for (int row = 0; row < 3; ++row)
        {
            const float scale = number(0, 3) > 0 ? 1.0f : std::array{-1.0f, 2.0f, 0.125f}[number(0, 2)];
            std::ranges::for_each(m[row], [=](float &x) { x *= scale; });
            m[3][row] = style == 1 ? real(1e5f) : static_cast<float>(number(-3, 3));
        }
        const int odd = number(0, 30);
        m[1][0] = odd == 0 ? INFINITY : m[1][0];
        std::copy_n(m[odd == 1 ? 0 : 2], 3, m[2]);
        pfDCSMat(dcs, m);
    }

    pfNode *node(int depth)
    {
        if (!nodes.empty() && number(0, 7) == 0)
        {
            return nodes[number(0, static_cast<int>(nodes.size()) - 1)];
        }
        const int kind = depth > 0 ? number(0, 6) : -1;
        void *made = kind < 0    ? static_cast<void *>(pfNewGeode(arena))
                     : kind == 0 ? static_cast<void *>(pfNewSwitch(arena))
                     : kind == 1 ? static_cast<void *>(pfNewLOD(arena))
                     : kind == 2 ? static_cast<void *>(pfNewScene(arena))
                     : kind == 3 ? static_cast<void *>(pfNewGroup(arena))
                                 : static_cast<void *>(dcss.emplace_back(pfNewDCS(arena)));
        kind == 0 ? pfSwitchVal(static_cast<pfSwitch *>(made), number(-2, 3)) : 0;
        kind > 3 ? setMatrix(dcss.back()) : void();
        for (int i = depth > 0 ? number(1, 4) : number(0, 3); i > 0; --i)
        {
            kind < 0 ? pfAddGSet(static_cast<pfGeode *>(made), gset())
                     : pfAddChild(static_cast<pfGroup *>(made), node(depth - 1));
        }
        if (number(0, 3) == 0)
        {
            pfNodeTravMask(asNode(made), PFTRAV_ISECT, static_cast<unsigned int>(number(0, 3)), PFTRAV_SELF, PF_SET);
        }
        return nodes.emplace_back(asNode(made));
    }

    // At a triangle (within, on an edge, at a corner), or anywhere; straight down, along an axis, or in any direction.
    void aim(pfSeg &seg, const std::vector<Triangle> &at)
    {
        Vec goal = vec(point()), way = {0, 0, -1};
        if (!at.empty() && number(0, 9) > 0)
        {
            const Triangle &triangle = at[number(0, static_cast<int>(at.size()) - 1)];
            Real u = number(0, 2) / 2.0L, v = number(0, 1) * (1 - u);
            u = number(0, 1) == 0 ? u : std::fabs(real(0.5f));
            v = number(0, 1) == 0 ? v : std::fabs(real(0.5f));
            goal = plus(plus(triangle.world(0), u, triangle.world(1) - triangle.world(0)), v,
                        triangle.world(2) - triangle.world(0));
        }
        const int kind = number(0, 3);
        way = kind == 0 ? Vec{1, 0, 0} : kind == 1 ? Vec{real(3), real(3), real(3)} : way;
        const Real distance = number(0, 1) == 0 ? number(1, 10) : std::max(1.0L, size(goal));
        for (int axis = 0; axis < 3; ++axis)
        {
            seg.pos[axis] = static_cast<float>(goal[axis] - distance * way[axis]);
            seg.dir[axis] = static_cast<float>(way[axis]);
        }
        constexpr Real kFactors[] = {0.5L, 0.99L, 1.01L, 5, 5};
        seg.length = static_cast<float>(distance * kFactors[number(0, 4)]);
    }

    std::mt19937 random;
    unsigned int style;
    std::deque<std::vector<Corner>> points;
    std::deque<std::vector<unsigned short>> indices;
    std::deque<std::vector<int>> lengths;
    std::vector<pfGeoSet *> gsets;
    std::vector<pfDCS *> dcss;
    std::vector<pfNode *> nodes;
    pfNode *top;
};

void checkScene(Scene &scene, Counts &counts)
{
    constexpr Affine kIdentity = {{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {0, 0, 0}}};
    pfSegSet set = {};
    set.activeMask = ~0U;
    set.isectMask = std::array{1U, 2U, ~0U, ~0U}[scene.number(0, 3)];
    std::vector<Triangle> triangles;
    collect(scene.top, set.isectMask, kIdentity, 0, triangles);
    for (pfSeg &seg : set.segs)
    {
        scene.aim(seg, triangles);
    }
    check(scene.top, set, triangles, counts);
}

} // namespace

TEST(PfIsect, AgreesWithTestsOfAllTriangles)
{
    pfArenaInfo before, after;
    pfGetArenaInfo(&before);
    Counts counts = {};
    for (unsigned int seed = 0; seed < 300 && !HasFailure(); ++seed)
    {
        SCOPED_TRACE(seed);
        Scene scene(seed);
        std::vector<void *> blocks;
        for (size_t bytes = seed % 3 == 0 ? 1 << 22 : 0; bytes > 0; bytes /= 2) // no room for hierarchies
        {
            while (void *block = pfMalloc(bytes, arena))
            {
                blocks.push_back(block);
            }
        }
        checkScene(scene, counts);
        std::ranges::for_each(blocks, pfFree);
        for (size_t i = 0; i < scene.gsets.size(); i += 2)
        {
            scene.fill(scene.points[i]);
            scene.setPoints(i);
        }
        std::ranges::for_each(scene.dcss, [&](pfDCS *dcs) { scene.setMatrix(dcs); });
        checkScene(scene, counts);
        EXPECT_EQ(pfDelete(scene.top), 1);
    }
    pfGetArenaInfo(&after);
    EXPECT_EQ(after.blocksInUse, before.blocksInUse);
    EXPECT_TRUE(counts.segments == 300 * 2 * PFIS_MAX_SEGS && counts.sure > 20000) << counts.sure;
}

namespace
{

// Level squares at heights, 20 wide, round the origin.
struct Squares
{
    explicit Squares(const std::vector<float> &heights, void *in = nullptr) : gset(pfNewGSet(in))
    {
        for (const float z : heights)
        {
            points.insert(points.end(), {{-10, -10, z}, {10, -10, z}, {10, 10, z}, {-10, 10, z}});
        }
        pfGSetPrimType(gset, PFGS_QUADS), pfGSetNumPrims(gset, static_cast<int>(heights.size()));
        pfGSetAttr(gset, PFGS_COORD3, PFGS_PER_VERTEX, points.data(), nullptr);
    }

    std::vector<Corner> points;
    pfGeoSet *gset;
};

pfSegSet downwards(int mode)
{
    pfSegSet set = {};
    set.mode = PFTRAV_IS_PRIM | mode;
    set.activeMask = 1;
    set.isectMask = ~0U;
    set.segs[0] = {{1, 2, 10}, {0, 0, -1}, 20};
    return set;
}

std::vector<float> distancesOf(pfHit **hits)
{
    std::vector<float> distances;
    for (; *hits != nullptr; ++hits)
    {
        distances.push_back(ask<float>(*hits, PFQHIT_DISTANCE));
    }
    return distances;
}

// What a callback said to which hit, and which it was asked about: "B6" is one in GeoSet B at distance 6.
pfGeoSet *letters[3];
std::vector<std::pair<std::string, int>> verdicts;
std::string asked;

std::string nameOf(const pfHit *hit)
{
    const auto letter = std::ranges::find(letters, ask<pfGeoSet *>(hit, PFQHIT_GSET)) - letters;
    return static_cast<char>('A' + letter) + std::to_string(std::lround(ask<float>(hit, PFQHIT_DISTANCE))) + " ";
}

std::string namesOf(pfHit **hits)
{
    std::string names;
    for (; *hits != nullptr; ++hits)
    {
        names += nameOf(*hits);
    }
    return names;
}

int judge(pfHit *hit)
{
    const std::string name = nameOf(hit);
    const auto found = std::ranges::find(verdicts, name, &std::pair<std::string, int>::first);
    asked += name;
    return found != verdicts.end() ? found->second : PFTRAV_CONT;
}

int intersectAgain(pfHit *)
{
    pfSegSet set = downwards(0);
    pfHit **hits[2] = {nullptr, nullptr};
    const auto again = [&] { EXPECT_EQ(pfNodeIsectSegs(asNode(pfGetSharedArena()), &set, hits), 0); };
    EXPECT_TRUE(linesOf(again) == 1 && *hits[0] == nullptr && hits[1] == nullptr);
    return PFTRAV_TERM;
}

int fail(pfHit *)
{
    throw 1;
}

} // namespace

TEST(PfIsect, CallbacksDecideWhatCounts)
{
    Squares a({5, 3, 1}), b({4}), c({3});
    pfGeode *geode = pfNewGeode(nullptr), *other = pfNewGeode(nullptr);
    pfGroup *top = pfNewGroup(nullptr);
    b.points[1][0] = b.points[2][0] = 11;
    letters[0] = a.gset, letters[1] = b.gset, letters[2] = c.gset;
    pfAddGSet(geode, a.gset), pfAddGSet(geode, b.gset), pfAddGSet(other, c.gset);
    pfAddChild(top, asNode(geode)), pfAddChild(top, asNode(other));
    constexpr int kStart = PFTRAV_IS_CLIP_START, kEnd = PFTRAV_IS_CLIP_END, kIgnore = PFTRAV_IS_IGNORE;
    const struct
    {
        int mode;
        std::vector<std::pair<std::string, int>> verdicts;
        std::string asked, hits, second; // of the second segment, which goes through B alone
    } cases[] = {{0, {}, "A5 A7 A9 B6 C7 B6 ", "A5 B6 A7 C7 A9 ", "B6 "},
                 {0, {{"A5 ", 0x7fffffe0}, {"B6 ", kIgnore}}, "A5 A7 A9 B6 C7 B6 ", "A5 A7 C7 A9 ", ""},
                 {0, {{"A5 ", PFTRAV_PRUNE}}, "A5 B6 C7 B6 ", "A5 B6 C7 ", "B6 "},
                 {0, {{"A7 ", PFTRAV_PRUNE | kIgnore}}, "A5 A7 B6 C7 B6 ", "A5 B6 C7 ", "B6 "},
                 {0, {{"A7 ", PFTRAV_TERM}}, "A5 A7 ", "A5 A7 ", ""},
                 {0, {{"B6 ", PFTRAV_TERM | kIgnore}}, "A5 A7 A9 B6 ", "A5 A7 A9 ", ""},
                 {0, {{"A7 ", kEnd}}, "A5 A7 B6 C7 B6 ", "A5 B6 A7 C7 ", "B6 "},
                 {0, {{"A7 ", kStart}}, "A5 A7 A9 C7 B6 ", "A5 A7 C7 A9 ", "B6 "},
                 {0, {{"B6 ", kStart | kEnd | kIgnore}}, "A5 A7 A9 B6 B6 ", "A5 A7 A9 ", ""},
                 {PFTRAV_IS_NEAREST, {}, "A5 B6 ", "A5 ", "B6 "},
                 {PFTRAV_IS_NEAREST, {{"A5 ", kIgnore}}, "A5 A7 B6 B6 ", "B6 ", "B6 "},
                 {PFTRAV_IS_NEAREST, {{"A5 ", kIgnore}, {"B6 ", kIgnore}}, "A5 A7 B6 C7 B6 ", "A7 ", ""},
                 {PFTRAV_IS_NEAREST, {{"A5 ", kIgnore | kStart | kEnd}}, "A5 B6 ", "", "B6 "}};
    for (const auto &each : cases)
    {
        pfSegSet set = downwards(each.mode);
        set.activeMask = 0x80000001;
        set.segs[31] = {{10.5f, 2, 10}, {0, 0, -1}, 6.5f};
        set.discFunc = judge;
        pfHit **hits[PFIS_MAX_SEGS] = {};
        verdicts = each.verdicts, asked.clear();
        EXPECT_EQ(pfNodeIsectSegs(asNode(top), &set, hits), !each.hits.empty() + !each.second.empty());
        EXPECT_EQ(asked, each.asked);
        EXPECT_EQ(namesOf(hits[0]), each.hits) << each.asked;
        EXPECT_EQ(namesOf(hits[31]), each.second) << each.asked;
        EXPECT_EQ(hits[1], nullptr);
    }
    pfSegSet set = downwards(0);
    pfHit **hits[1];
    set.discFunc = fail;
    EXPECT_THROW(pfNodeIsectSegs(asNode(top), &set, hits), int);
    set.discFunc = intersectAgain;
    EXPECT_EQ(pfNodeIsectSegs(asNode(top), &set, hits), 1);
    EXPECT_EQ(pfDelete(top), 1);
}

TEST(PfIsect, MisuseHitsNothing)
{
    Squares squares({0, 0, 5});
    pfGeode *geode = pfNewGeode(nullptr);
    pfAddGSet(geode, squares.gset);
    pfSegSet set = downwards(0);
    pfHit **hits[PFIS_MAX_SEGS] = {};
    const struct
    {
        void *node;
        pfSeg seg;
        unsigned int isectMask;
        int mode, hits, reports;
    } cases[] = {{geode, {{1, 2, 5}, {0, 0, -1}, 5}, 8, PFTRAV_IS_PRIM, 3, 0},
                 {geode, {{1, 2, 5}, {0, 0, -1}, 5}, 0, PFTRAV_IS_PRIM, 0, 0},
                 {geode, {{1, 2, 5}, {0, 0, -1}, 5}, 8, PFTRAV_IS_NORM, 0, 0},
                 {geode, {{1, 2, 5}, {0, 0, -1}, 0}, 8, PFTRAV_IS_PRIM, 1, 0},
                 {geode, {{1, 2, 5}, {0, 0, -1}, -5}, 8, PFTRAV_IS_PRIM, 0, 0},
                 {geode, {{1, 2, 5}, {0, 0, -1}, NAN}, 8, PFTRAV_IS_PRIM, 0, 0},
                 {geode, {{1, 2, 5}, {0, 0, -INFINITY}, 5}, 8, PFTRAV_IS_PRIM, 0, 0},
                 {geode, {{1, NAN, 5}, {0, 0, -1}, 5}, 8, PFTRAV_IS_PRIM, 0, 0},
                 {geode, {{1, 2, 5}, {0, 0, 0}, 5}, 8, PFTRAV_IS_PRIM, 0, 0},
                 {geode, {{1, 2, 5}, {1, 0, 0}, 5}, 8, PFTRAV_IS_PRIM, 0, 0},
                 {squares.gset, {{1, 2, 5}, {0, 0, -1}, 5}, 8, PFTRAV_IS_PRIM, 0, 1},
                 {nullptr, {{1, 2, 5}, {0, 0, -1}, 5}, 8, PFTRAV_IS_PRIM, 0, 1}};
    for (const auto &each : cases)
    {
        set.segs[0] = each.seg, set.isectMask = each.isectMask, set.mode = each.mode;
        const auto intersect = [&] { EXPECT_EQ(pfNodeIsectSegs(asNode(each.node), &set, hits), each.hits > 0); };
        EXPECT_EQ(linesOf(intersect), each.reports) << &each - cases;
        EXPECT_EQ(static_cast<int>(distancesOf(hits[0]).size()), each.hits) << &each - cases;
    }
    const auto misuse = [&]
    {
        pfVec3 place;
        EXPECT_EQ(pfNodeIsectSegs(asNode(geode), nullptr, hits) + pfNodeIsectSegs(asNode(geode), &set, nullptr), 0);
        set = downwards(PFTRAV_IS_NEAREST);
        EXPECT_EQ(pfNodeIsectSegs(asNode(geode), &set, hits), 1);
        EXPECT_EQ(pfQueryHit(hits[0][0], 0, place) + pfQueryHit(hits[0][0], 4, nullptr) + pfQueryHit(nullptr, 4, place),
                  0);
        EXPECT_EQ(ask<Corner>(hits[0][0], PFQHIT_NORM), Corner{}); // it was not wanted
    };
    EXPECT_EQ(linesOf(misuse), 5);
    EXPECT_EQ(ask<pfSeg>(hits[0][0], PFQHIT_SEG).length, 20);
    EXPECT_TRUE(ask<int>(hits[0][0], PFQHIT_SEGNUM) == 0 && pfDelete(geode) == 1);
}

// A closed surface of eight triangles, with corners, edges and axes far from the origin: no segment slips through.
TEST(PfIsect, NothingSlipsThroughEdgesAndCorners)
{
    const std::vector<Corner> corners = {{99999, 50000, 0},  {100001, 50000, 0},  {100000, 49999, 0},
                                         {100000, 50001, 0}, {100000, 50000, -1}, {100000, 50000, 1}};
    std::vector<unsigned short> indices;
    for (unsigned short i = 0; i < 8; ++i)
    {
        indices.insert(indices.end(),
                       {static_cast<unsigned short>(i & 1), static_cast<unsigned short>(2 + (i >> 1 & 1)),
                        static_cast<unsigned short>(4 + (i >> 2))});
    }
    pfGeoSet *gset = pfNewGSet(nullptr);
    pfGSetPrimType(gset, PFGS_TRIS), pfGSetNumPrims(gset, 8);
    pfGSetAttr(gset, PFGS_COORD3, PFGS_PER_VERTEX, const_cast<Corner *>(corners.data()), indices.data());
    pfGeode *geode = pfNewGeode(nullptr);
    pfDCS *dcs = pfNewDCS(nullptr), *inner = pfNewDCS(nullptr);
    pfAddGSet(geode, gset), pfAddChild(reinterpret_cast<pfGroup *>(inner), asNode(geode));
    pfAddChild(reinterpret_cast<pfGroup *>(dcs), asNode(inner));
    pfDCSTrans(dcs, -70000, 30000, 500), pfDCSTrans(inner, 1, 2, 3);
    const Corner centre = {30001, 80002, 503};
    std::mt19937 random(6);
    pfSegSet set = downwards(PFTRAV_IS_NEAREST);
    pfHit **hits[1];
    for (int i = 0; i < 3000; ++i)
    {
        // Towards the middle from anywhere at exact steps, straight through corners and edges, and down on edges.
        const auto step = [&] { return static_cast<float>(static_cast<int>(random() % 257) - 128) / 128; };
        Corner way = {step(), step(), step()};
        way[random() % 3] = 0;
        way[random() % 3] *= static_cast<float>(random() % 2);
        const Real reach = std::fabs(way[0]) + std::fabs(way[1]) + std::fabs(way[2]);
        const bool isDown = i % 2 == 0;
        if (reach < 0.3L || (isDown && std::fabs(way[0]) + std::fabs(way[1]) > 1))
        {
            continue;
        }
        for (size_t axis = 0; axis < 3; ++axis)
        {
            set.segs[0].pos[axis] = centre[axis] + (isDown && axis == 2 ? 4 : (isDown ? 1 : 4) * way[axis]);
            set.segs[0].dir[axis] = isDown ? -1.0f * (axis == 2) : -way[axis];
        }
        ASSERT_EQ(pfNodeIsectSegs(asNode(dcs), &set, hits), 1) << way[0] << ' ' << way[1] << ' ' << way[2];
        const Real expected = isDown ? 3 + std::fabs(way[0]) + std::fabs(way[1]) : 4 - 1 / reach;
        EXPECT_NEAR(distancesOf(hits[0])[0], static_cast<double>(expected), 1e-6);
    }
    EXPECT_EQ(pfDelete(dcs), 1);
}

TEST(PfIsect, DepthIsLimitedByMemoryAlone)
{
    Squares squares({0});
    pfGeode *geode = pfNewGeode(nullptr);
    pfAddGSet(geode, squares.gset);
    pfNode *top = asNode(geode);
    constexpr int kLevels = 100000;
    for (int i = 0; i < kLevels; ++i)
    {
        pfDCS *dcs = i % 2 == 0 ? pfNewDCS(nullptr) : nullptr;
        pfGroup *above = dcs != nullptr ? reinterpret_cast<pfGroup *>(dcs) : pfNewGroup(nullptr);
        pfAddChild(above, top);
        top = asNode(above);
        dcs != nullptr ? pfDCSTrans(dcs, 0, 0, i % 4 == 0 ? 2.0f : -1.0f) : void();
    }
    pfSegSet set = downwards(PFTRAV_IS_NEAREST);
    set.segs[0] = {{1, 2, 40000}, {0, 0, -1}, 40000};
    pfHit **hits[1];
    ASSERT_EQ(pfNodeIsectSegs(top, &set, hits), 1);
    EXPECT_EQ(distancesOf(hits[0]), std::vector<float>{40000 - kLevels / 4});
    EXPECT_EQ(ask<Corner>(hits[0][0], PFQHIT_POINT), (Corner{1, 2, 0}));
    EXPECT_EQ(pfDelete(top), 1);
}

TEST(PfIsect, FarthestHitsAreLeftOutWhenMemoryRunsOut)
{
    std::vector<float> heights(3000);
    std::ranges::generate(heights, [i = 0]() mutable { return static_cast<float>(i++ * 7 % 3000) / 512; });
    Squares squares(heights), last({6, 5.95f});
    pfGeode *geode = pfNewGeode(nullptr);
    pfAddGSet(geode, squares.gset), pfAddGSet(geode, last.gset);
    pfSegSet set = downwards(0);
    pfHit **hits[1];
    EXPECT_EQ(pfNodeIsectSegs(asNode(geode), &set, hits), 1);
    const std::vector<float> all = distancesOf(hits[0]);
    EXPECT_TRUE(all.size() == 3002 && std::ranges::is_sorted(all));
    for (const size_t bytes : {size_t{8}, size_t{20000}, size_t{100000}, SIZE_MAX})
    {
        std::vector<float> some;
        const auto intersect = [&]
        {
            greatestAllocation = bytes;
            const int count = pfNodeIsectSegs(asNode(geode), &set, hits);
            greatestAllocation = SIZE_MAX;
            some = distancesOf(hits[0]);
            EXPECT_EQ(count, !some.empty());
        };
        std::ptrdiff_t lines = 0;
        const auto inThread = [&] { std::thread(intersect).join(); }; // whose memory is not kept
        lines = linesOf(inThread);
        EXPECT_EQ(lines, some.size() < all.size()) << bytes;
        EXPECT_TRUE(some.size() > bytes / 1000 || bytes == SIZE_MAX || bytes == 8) << some.size();
        EXPECT_TRUE(std::equal(some.begin(), some.end(), all.begin())) << bytes;
    }
    EXPECT_EQ(pfDelete(geode), 1);
}
