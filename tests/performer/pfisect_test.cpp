// Intersection beside a reference that tests every triangle in world coordinates, in long double precision.
#include "support/capture.h"
#include "support/failingnew.h"
#include "support/fullarena.h"

#include <gtest/gtest.h>

#include <tolvin/performer/pf.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <string>
#include <thread>
#include <utility>
#include <vector>

// Allocations of the code under test of more bytes than this fail.
static size_t greatestAllocation = SIZE_MAX;

static bool isGranted(size_t bytes)
{
    return bytes <= greatestAllocation;
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
    bool isSure, isFound;
};

void collect(pfGeoSet *gset, Triangle triangle, std::vector<Triangle> &to)
{
    void *list;
    unsigned short *indices;
    pfGetGSetAttrLists(gset, PFGS_COORD3, &list, &indices);
    const int type = pfGetGSetPrimType(gset);
    triangle.gset = gset;
    for (int prim = 0, start = 0, length; prim < pfGetGSetNumPrims(gset); ++prim, start += length)
    {
        triangle.prim = prim;
        length = type < PFGS_LINESTRIPS ? type + 1 : pfGetGSetPrimLengths(gset)[prim];
        for (int i = 2; type >= PFGS_TRIS && type != PFGS_LINESTRIPS && i < length; ++i)
        {
            const bool isStrip = type == PFGS_TRISTRIPS, isOdd = isStrip && i % 2 == 1;
            const int at[] = {isStrip ? i - 2 + isOdd : 0, i - 1 - isOdd, i};
            for (int k = 0; k < 3; ++k)
            {
                const int vertex = indices != nullptr ? indices[start + at[k]] : start + at[k];
                triangle.corners[k] = static_cast<Corner *>(list)[vertex];
            }
            const auto &[a, b, c] = triangle.corners;
            const bool isDistinct = a != b && b != c && c != a;
            isDistinct ? to.push_back(triangle) : void();
        }
    }
}

void collect(pfNode *node, unsigned int mask, Triangle way, std::vector<Triangle> &to)
{
    if ((pfGetNodeTravMask(node, PFTRAV_ISECT) & mask) == 0)
    {
        return;
    }
    if (pfIsOfType(node, pfGetGeodeClassType()))
    {
        way.geode = reinterpret_cast<pfGeode *>(node);
        for (int i = 0; i < pfGetNumGSets(way.geode); ++i)
        {
            collect(pfGetGSet(way.geode, i), way, to);
        }
        return;
    }
    if (pfIsOfType(node, pfGetSCSClassType()))
    {
        pfMatrix m;
        pfGetSCSMat(reinterpret_cast<pfSCS *>(node), m);
        const Real determinant = dot(vec(m[0]), cross(vec(m[1]), vec(m[2])));
        if (!(std::fabs(determinant) > 1e-9L && std::isfinite(determinant)))
        {
            return;
        }
        const Affine above = way.toWorld;
        for (size_t row = 0; row < 4; ++row)
        {
            way.toWorld[row] = transformed(vec(m[row]), above, row == 3);
        }
        way.reach = std::max(way.reach, size(way.toWorld[3]));
    }
    const int only = pfIsOfType(node, pfGetSwitchClassType()) ? pfGetSwitchVal(reinterpret_cast<pfSwitch *>(node))
                     : pfIsOfType(node, pfGetLODClassType())  ? 0
                                                              : PFSWITCH_ON;
    pfGroup *group = reinterpret_cast<pfGroup *>(node);
    for (int i = 0; i < pfGetNumChildren(group); ++i)
    {
        only == PFSWITCH_ON || only == i ? collect(pfGetChild(group, i), mask, way, to) : void();
    }
}

// The line through a plane, and where in the triangle (Möller and Trumbore 1997, without its early ends). Which hits are
// sure follows from the errors that differences, products and transforms of this size may have.
bool expect(const Triangle &triangle, const pfSeg &seg, Expected &hit)
{
    constexpr Real kError = 1e-13L;
    const Vec a = triangle.world(0), b = triangle.world(1), c = triangle.world(2), e1 = b - a, e2 = c - a;
    const Vec s = vec(seg.pos) - a, d = vec(seg.dir), n = cross(e1, e2), q = cross(s, d);
    const Real det = -dot(d, n), edge = std::max(size(e1), size(e2));
    const Real reach = std::max({triangle.reach, size(a), size(b), size(c), size(vec(seg.pos)), size(s), edge});
    hit = {&triangle, dot(s, n) / det, dot(e2, q) / det, -dot(e1, q) / det, 0, 0, false, false};
    hit.uvError = kError * size(d) * reach * reach / std::fabs(det);
    hit.tError = kError * reach * edge * edge / std::fabs(det) + std::fabs(hit.t) * hit.uvError;
    const Real margin = std::min({hit.u, hit.v, 1 - hit.u - hit.v}), end = std::min(hit.t, seg.length - hit.t);
    hit.isSure = hit.uvError < 0.1L && margin > hit.uvError && end > hit.tError;
    return std::isfinite(size(e1) + size(e2)) &&
           (!(hit.uvError < 0.1L) || (margin >= -hit.uvError && end >= -hit.tError));
}

// Whether point, triangle and matrix of a hit are those of an expected one.
bool isThat(const pfHit *hit, const Expected &expected)
{
    const Triangle &triangle = *expected.triangle;
    auto corners = ask<std::array<Corner, 3>>(hit, PFQHIT_TRI);
    std::rotate(corners.begin(), std::ranges::find(corners, triangle.corners[0]), corners.end());
    const Real t = ask<float>(hit, PFQHIT_DISTANCE);
    bool isSame = triangle.gset == ask<pfGeoSet *>(hit, PFQHIT_GSET) &&
                  triangle.geode == ask<pfGeode *>(hit, PFQHIT_GEODE) && triangle.prim == ask<int>(hit, PFQHIT_PRIM) &&
                  triangle.corners == corners && !(std::fabs(t - expected.t) > expected.tError + 1e-7L * t);
    const auto matrix = ask<std::array<std::array<float, 4>, 4>>(hit, PFQHIT_XFORM);
    for (size_t row = 0; row < 4; ++row)
    {
        isSame = isSame && matrix[row][3] == (row == 3) &&
                 size(vec(matrix[row]) - triangle.toWorld[row]) <= 2e-7L * size(triangle.toWorld[row]);
    }
    return isSame;
}

void checkPlace(const pfHit *hit, const Expected &expected)
{
    const auto &corners = expected.triangle->corners;
    const Vec a = vec(corners[0]), e1 = vec(corners[1]) - a, e2 = vec(corners[2]) - a;
    const Vec point = plus(plus(a, expected.u, e1), expected.v, e2), normal = cross(e1, e2);
    const Real edge = std::max(size(e1), size(e2)), error = 4 * expected.uvError * edge;
    EXPECT_LE(size(vec(ask<Corner>(hit, PFQHIT_POINT)) - point), 1.1e-7L * size(point) + 1e-15L * edge + error);
    EXPECT_GT(dot(vec(ask<Corner>(hit, PFQHIT_NORM)), normal), 0.9999L * size(normal));
}

// Returns how many hits were sure.
ptrdiff_t check(pfNode *top, pfSegSet &set, const std::vector<Triangle> &triangles)
{
    std::array<pfHit **, PFIS_MAX_SEGS> hits;
    std::array<std::pair<int, float>, PFIS_MAX_SEGS> first;
    ptrdiff_t sure = 0;
    const auto orderOf = [](const pfHit *hit)
    {
        return hit == nullptr ? std::pair(-1, 0.0f)
                              : std::pair(ask<int>(hit, PFQHIT_PRIM), ask<float>(hit, PFQHIT_DISTANCE));
    };
    set.mode = PFTRAV_IS_PRIM | PFTRAV_IS_NORM;
    pfNodeIsectSegs(top, &set, hits.data());
    for (size_t i = 0; i < PFIS_MAX_SEGS; ++i)
    {
        std::vector<Expected> expected;
        for (const Triangle &triangle : triangles)
        {
            Expected one;
            expect(triangle, set.segs[i], one) ? expected.push_back(one) : void();
        }
        first[i] = orderOf(hits[i][0]);
        float last = 0;
        for (pfHit **hit = hits[i]; *hit != nullptr; ++hit)
        {
            const auto isFound = [=](const Expected &each) { return !each.isFound && isThat(*hit, each); };
            const auto found = std::ranges::find_if(expected, isFound);
            if (found == expected.end())
            {
                ADD_FAILURE() << "a hit too many, segment " << i;
                return sure;
            }
            found->isFound = true;
            found->isSure ? checkPlace(*hit, *found) : void();
            EXPECT_LE(last, orderOf(*hit).second);
            last = orderOf(*hit).second;
        }
        sure += std::ranges::count_if(expected, &Expected::isSure);
        EXPECT_TRUE(std::ranges::all_of(expected, [](const Expected &e) { return e.isFound || !e.isSure; })) << i;
    }
    set.mode |= PFTRAV_IS_NEAREST;
    pfNodeIsectSegs(top, &set, hits.data());
    for (size_t i = 0; i < PFIS_MAX_SEGS; ++i)
    {
        EXPECT_EQ(orderOf(hits[i][0]), first[i]) << "nearest of segment " << i;
        EXPECT_TRUE(hits[i][0] == nullptr || hits[i][1] == nullptr);
    }
    return sure;
}

int number(int least, int greatest)
{
    return least + static_cast<int>(lrand48() % (greatest - least + 1));
}

float real(float greatest)
{
    return static_cast<float>(2 * drand48() - 1) * greatest;
}

// A random graph. Its kinds of coordinates: small whole numbers, far from the origin, huge, slivers, anything.
struct Scene
{
    struct GeoSet
    {
        pfGeoSet *gset;
        std::vector<Corner> points;
        std::vector<unsigned short> indices;
        std::vector<int> lengths;
    };

    Corner point() const
    {
        const auto whole = [] { return static_cast<float>(number(-3, 3)); };
        const float x = whole(), y = whole(), z = whole(), scale = std::pow(10.0f, static_cast<float>(number(6, 20)));
        return style == 0   ? Corner{x, y, z}
               : style == 1 ? Corner{99980 + x + real(1), -99990 + y + real(1), 1000 + z + real(1)}
               : style == 2 ? Corner{real(scale), real(scale), real(number(0, 1) == 0 ? scale : 1)}
               : style == 3 ? Corner{real(5), x + real(1e-4f), y + real(1e-6f)}
                            : Corner{real(5), real(5), number(0, 40) == 0 ? NAN : real(5)};
    }

    void setPoints(GeoSet &each) const
    {
        std::ranges::generate(each.points, [this] { return point(); });
        pfGSetAttr(each.gset, PFGS_COORD3, PFGS_PER_VERTEX, each.points.data(), each.indices.data());
    }

    pfGeoSet *gset()
    {
        const int prims = number(1, 6);
        GeoSet &made = gsets.emplace_back();
        made.gset = pfNewGSet(arena);
        made.points.resize(prims * 6), made.lengths.resize(prims),
            made.indices.resize(number(0, 1) * prims * 6); // or none
        std::ranges::generate(made.lengths, [] { return number(0, 6); });
        std::ranges::generate(made.indices, [=] { return static_cast<unsigned short>(number(0, prims * 6 - 1)); });
        pfGSetPrimType(made.gset, number(PFGS_POINTS, PFGS_POLYS)), pfGSetNumPrims(made.gset, prims);
        pfGSetPrimLengths(made.gset, made.lengths.data());
        setPoints(made);
        return made.gset;
    }

    void setMatrix(pfDCS *dcs) const
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
        void *made = kind < 0 ? static_cast<void *>(pfNewGeode(arena)) : kind == 0 ? pfNewSwitch(arena) : nullptr;
        made = kind == 1 ? pfNewLOD(arena) : kind == 2 ? static_cast<void *>(pfNewScene(arena)) : made;
        made = kind == 3  ? pfNewGroup(arena)
               : kind > 3 ? static_cast<void *>(dcss.emplace_back(pfNewDCS(arena)))
                          : made;
        kind == 0 ? pfSwitchVal(static_cast<pfSwitch *>(made), number(-2, 3)) : 0;
        kind > 3 ? setMatrix(dcss.back()) : void();
        for (int i = depth > 0 ? number(1, 4) : number(0, 3); i > 0; --i)
        {
            kind < 0 ? pfAddGSet(static_cast<pfGeode *>(made), gset())
                     : pfAddChild(static_cast<pfGroup *>(made), node(depth - 1));
        }
        const auto mask = static_cast<unsigned int>(number(0, 15)); // mostly all of it
        mask < 4 ? pfNodeTravMask(asNode(made), PFTRAV_ISECT, mask, PFTRAV_SELF, PF_SET) : void();
        return nodes.emplace_back(asNode(made));
    }

    // At a triangle (within, on an edge, at a corner), or anywhere; straight down, along an axis, or in any direction.
    void aim(pfSeg &seg, const std::vector<Triangle> &at) const
    {
        Vec goal = vec(point());
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
        const Vec way = kind == 0 ? Vec{1, 0, 0} : kind == 1 ? Vec{real(3), real(3), real(3)} : Vec{0, 0, -1};
        const Real distance = number(0, 1) == 0 ? number(1, 10) : std::max(1.0L, size(goal));
        for (int axis = 0; axis < 3; ++axis)
        {
            seg.pos[axis] = static_cast<float>(goal[axis] - distance * way[axis]);
            seg.dir[axis] = static_cast<float>(way[axis]);
        }
        seg.length = static_cast<float>(distance * std::array{0.5L, 0.99L, 1.01L, 5.0L, 5.0L}[number(0, 4)]);
    }

    ptrdiff_t check()
    {
        pfSegSet set = {};
        set.activeMask = ~0U, set.isectMask = std::array{1U, 2U, ~0U, ~0U}[number(0, 3)];
        std::vector<Triangle> triangles;
        collect(top, set.isectMask, {{}, {}, 0, {}, {{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {}}}, 0}, triangles);
        std::ranges::for_each(set.segs, [&](pfSeg &seg) { aim(seg, triangles); });
        return ::check(top, set, triangles);
    }

    unsigned int style;
    std::vector<GeoSet> gsets = {};
    std::vector<pfDCS *> dcss = {};
    std::vector<pfNode *> nodes = {};
    pfNode *top = node(4);
};

} // namespace

TEST(PfIsect, AgreesWithTestsOfAllTriangles)
{
    const tolvin::NothingStays nothingStays;
    ptrdiff_t sure = 0;
    for (unsigned int seed = 0; seed < 300 && !HasFailure(); ++seed)
    {
        SCOPED_TRACE(seed);
        Scene scene = {seed % 5};
        const auto blocks = tolvin::fillersOf(seed % 3 == 0 ? 1 << 22 : 0); // no room for hierarchies
        sure += scene.check();
        std::ranges::for_each(blocks, pfFree);
        for (size_t i = 0; i < scene.gsets.size(); i += 2)
        {
            scene.setPoints(scene.gsets[i]);
        }
        std::ranges::for_each(scene.dcss, [&](pfDCS *dcs) { scene.setMatrix(dcs); });
        sure += scene.check();
        EXPECT_EQ(pfDelete(scene.top), 1);
    }
    EXPECT_GT(sure, 20000);
}

namespace
{

// Level squares at heights, 20 wide, round the origin, in a geode.
struct Squares
{
    explicit Squares(const std::vector<float> &heights) : gset(pfNewGSet(nullptr)), geode(pfNewGeode(nullptr))
    {
        for (const float z : heights)
        {
            points.insert(points.end(), {{-10, -10, z}, {10, -10, z}, {10, 10, z}, {-10, 10, z}});
        }
        pfGSetPrimType(gset, PFGS_QUADS), pfGSetNumPrims(gset, static_cast<int>(heights.size()));
        pfGSetAttr(gset, PFGS_COORD3, PFGS_PER_VERTEX, points.data(), nullptr), pfAddGSet(geode, gset);
    }

    std::vector<Corner> points;
    pfGeoSet *gset;
    pfGeode *geode;
};

pfSegSet downwards(int mode)
{
    pfSegSet set = {};
    set.mode = PFTRAV_IS_PRIM | mode, set.activeMask = 1, set.isectMask = ~0U;
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
    return *hits != nullptr ? nameOf(*hits) + namesOf(hits + 1) : "";
}

int judge(pfHit *hit)
{
    const auto found = std::ranges::find(verdicts, nameOf(hit), &std::pair<std::string, int>::first);
    asked += nameOf(hit);
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

} // namespace

TEST(PfIsect, CallbacksDecideWhatCounts)
{
    Squares a({5, 3, 1}), b({4}), c({3});
    pfGroup *top = pfNewGroup(nullptr);
    b.points[1][0] = b.points[2][0] = 11;
    letters[0] = a.gset, letters[1] = b.gset, letters[2] = c.gset;
    pfAddGSet(a.geode, b.gset), pfAddChild(top, asNode(a.geode)), pfAddChild(top, asNode(c.geode));
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
    set.discFunc = [](pfHit *) -> int { throw 1; };
    EXPECT_THROW(pfNodeIsectSegs(asNode(top), &set, hits), int);
    set.discFunc = intersectAgain;
    EXPECT_EQ(pfNodeIsectSegs(asNode(top), &set, hits) + pfDelete(top) + pfDelete(b.geode), 3);
}

TEST(PfIsect, MisuseHitsNothing)
{
    Squares squares({0, 0, 5});
    pfNode *geode = asNode(squares.geode);
    pfSegSet set = downwards(0);
    pfHit **hits[PFIS_MAX_SEGS] = {};
    const pfSeg good = {{1, 2, 5}, {0, 0, -1}, 5};
    const struct
    {
        void *node;
        pfSeg seg;
        unsigned int isectMask;
        int mode, hits, reports;
    } cases[] = {{geode, good, 8, 1, 3, 0},
                 {geode, good, 0, 1, 0, 0},
                 {geode, good, 8, PFTRAV_IS_NORM, 0, 0},
                 {squares.gset, good, 8, 1, 0, 1},
                 {nullptr, good, 8, 1, 0, 1},
                 {geode, {{1, 2, 5}, {0, 0, -1}, 0}, 8, 1, 1, 0},
                 {geode, {{1, 2, 5}, {0, 0, -1}, -5}, 8, 1, 0, 0},
                 {geode, {{1, 2, 5}, {0, 0, -1}, NAN}, 8, 1, 0, 0},
                 {geode, {{1, 2, 5}, {0, 0, -INFINITY}, 5}, 8, 1, 0, 0},
                 {geode, {{1, NAN, 5}, {0, 0, -1}, 5}, 8, 1, 0, 0},
                 {geode, {{1, 2, 5}, {0, 0, 0}, 5}, 8, 1, 0, 0},
                 {geode, {{1, 2, 5}, {1, 0, 0}, 5}, 8, 1, 0, 0}};
    for (const auto &each : cases)
    {
        set.segs[0] = each.seg, set.isectMask = each.isectMask, set.mode = each.mode;
        const auto intersect = [&] { EXPECT_EQ(pfNodeIsectSegs(asNode(each.node), &set, hits), each.hits > 0); };
        EXPECT_EQ(linesOf(intersect), each.reports) << &each - cases;
        EXPECT_EQ(static_cast<int>(distancesOf(hits[0]).size()), each.hits) << &each - cases;
    }
    set = downwards(PFTRAV_IS_NEAREST);
    const auto misuse = [&]
    {
        pfVec3 place;
        EXPECT_EQ(pfNodeIsectSegs(geode, nullptr, hits) + pfNodeIsectSegs(geode, &set, nullptr), 0);
        EXPECT_EQ(pfNodeIsectSegs(geode, &set, hits), 1);
        EXPECT_EQ(pfQueryHit(*hits[0], 0, place) + pfQueryHit(*hits[0], 4, nullptr) + pfQueryHit(nullptr, 4, place), 0);
    };
    EXPECT_EQ(linesOf(misuse), 5);
    EXPECT_EQ(ask<Corner>(*hits[0], PFQHIT_NORM), Corner{}); // it was not wanted
    EXPECT_TRUE(ask<pfSeg>(*hits[0], PFQHIT_SEG).length == 20 && ask<int>(*hits[0], PFQHIT_SEGNUM) == 0);
    EXPECT_EQ(pfDelete(geode), 1);
}

// Segments that pass an edge, a diagonal or a corner exactly, also far from the origin: boxes and triangles are closed.
TEST(PfIsect, NothingSlipsThroughEdgesAndCorners)
{
    Squares square({0});
    pfDCS *dcs = pfNewDCS(nullptr), *inner = pfNewDCS(nullptr);
    pfAddChild(reinterpret_cast<pfGroup *>(dcs), asNode(inner));
    pfAddChild(reinterpret_cast<pfGroup *>(inner), asNode(square.geode));
    pfDCSTrans(inner, 1, 2, 3);
    pfSegSet set = downwards(PFTRAV_IS_NEAREST);
    pfHit **hits[1];
    for (int i = 0; i < 6000; ++i)
    {
        const float far = i % 2 == 0 ? 0 : 70000, x = static_cast<float>(number(-10, 10)), y = i % 3 == 0 ? x : 10;
        const auto step = [] { return static_cast<float>(number(-3, 3) * number(0, 128)) / 128; };
        const Corner at = {-far + 1 + x, far + 2 + y, 3 + far / 128},
                     steps = {step(), step(), number(0, 1) == 0 ? 1 : step()};
        pfDCSTrans(dcs, -far, far, far / 128);
        for (int axis = 0; axis < 3; ++axis)
        {
            set.segs[0].pos[axis] = at[axis] - 4 * steps[axis], set.segs[0].dir[axis] = steps[axis];
        }
        ASSERT_EQ(pfNodeIsectSegs(asNode(dcs), &set, hits), steps[2] != 0) << i;
        ASSERT_TRUE(steps[2] == 0 || std::fabs(distancesOf(hits[0])[0] - 4) < 1e-6f) << i;
    }
    EXPECT_EQ(pfDelete(dcs), 1);
}

TEST(PfIsect, DepthIsLimitedByMemoryAlone)
{
    constexpr int kLevels = 100000;
    Squares squares({0});
    pfNode *top = asNode(squares.geode);
    for (int i = 0; i < kLevels; ++i)
    {
        pfDCS *dcs = i % 2 == 0 ? pfNewDCS(nullptr) : nullptr;
        void *above = dcs != nullptr ? static_cast<void *>(dcs) : pfNewGroup(nullptr);
        pfAddChild(static_cast<pfGroup *>(above), top);
        dcs != nullptr ? pfDCSTrans(dcs, 0, 0, i % 4 == 0 ? 2.0f : -1.0f) : void();
        top = asNode(above);
    }
    pfSegSet set = downwards(PFTRAV_IS_NEAREST);
    set.segs[0] = {{1, 2, 40000}, {0, 0, -1}, 40000};
    pfHit **hits[1];
    ASSERT_EQ(pfNodeIsectSegs(top, &set, hits), 1);
    EXPECT_EQ(distancesOf(hits[0]), std::vector<float>{40000 - kLevels / 4});
    EXPECT_EQ(pfDelete(top), 1);
}

TEST(PfIsect, FarthestHitsAreLeftOutWhenMemoryRunsOut)
{
    std::vector<float> heights(3000), all, some;
    std::ranges::generate(heights, [i = 0]() mutable { return static_cast<float>(i++ * 7 % 3000) / 512; });
    Squares squares(heights), last({6, 5.95f});
    pfAddGSet(squares.geode, last.gset);
    pfSegSet set = downwards(0);
    for (const size_t bytes : {SIZE_MAX, size_t{8}, size_t{20000}, size_t{100000}})
    {
        const auto intersect = [&]
        {
            pfHit **hits[1];
            greatestAllocation = bytes;
            const int count = pfNodeIsectSegs(asNode(squares.geode), &set, hits);
            greatestAllocation = SIZE_MAX;
            some = distancesOf(hits[0]);
            EXPECT_EQ(count, !some.empty());
        };
        const auto inThread = [&] { std::thread(intersect).join(); }; // whose memory is not kept
        const ptrdiff_t lines = linesOf(inThread);
        all = bytes == SIZE_MAX ? some : all;
        EXPECT_TRUE(all.size() == 3002 && std::ranges::is_sorted(all));
        EXPECT_EQ(lines, some.size() < all.size()) << bytes;
        EXPECT_TRUE(some.size() > std::min<size_t>(bytes, 3000000) / 1000 || bytes == 8) << some.size();
        EXPECT_TRUE(std::equal(some.begin(), some.end(), all.begin())) << bytes;
    }
    EXPECT_EQ(pfDelete(squares.geode) + pfDelete(last.geode), 2);
}
