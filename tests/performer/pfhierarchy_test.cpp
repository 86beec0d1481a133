#include "support/failingnew.h"

#include <gtest/gtest.h>

#include <tolvin/performer/pfhierarchy.hpp>
#include <tolvin/performer/pfmemory.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

// How many allocations are left until one fails; none fails below 0.
static int left = -1;

static bool isGranted(size_t)
{
    return left < 0 || left-- != 0;
}

extern "C" void *__real_pfMalloc(size_t bytes, void *arena);
extern "C" void *__wrap_pfMalloc(size_t bytes, void *arena)
{
    return isGranted(bytes) ? __real_pfMalloc(bytes, arena) : nullptr;
}

namespace
{

using Triangles = std::vector<pfTriangle>;
using Hierarchy = std::unique_ptr<pfHierarchy, decltype(&pfFree)>;
using Point = std::array<double, 3>;

double uniform(double least, double most)
{
    return least + drand48() * (most - least);
}

int anInt(int least, int most)
{
    return least + static_cast<int>(lrand48() % (most - least + 1));
}

Hierarchy hierarchyOf(const Triangles &triangles)
{
    return {pfBuildHierarchy(triangles, nullptr), pfFree};
}

void add(Triangles &triangles, const Point &a, const Point &b, const Point &c)
{
    pfTriangle &triangle = triangles.emplace_back();
    triangle.prim = static_cast<uint32_t>(triangles.size() - 1);
    for (int i = 0; i < 9; ++i)
    {
        triangle.corners[i / 3][i % 3] = static_cast<float>((i < 3 ? a : i < 6 ? b : c)[i % 3]);
    }
}

// Edges along x, y and a diagonal; heights are whole numbers, vertices single ones.
Triangles field(int edge, const Point &origin, double spacing, int height)
{
    const auto corner = [&](int x, int y) -> Point {
        return {origin[0] + x * spacing, origin[1] + y * spacing, origin[2] + (x * 7919 + y * 104729) % (height + 1)};
    };
    Triangles result;
    for (int i = 0; i < edge * edge; ++i)
    {
        const int x = i % edge, y = i / edge;
        add(result, corner(x, y), corner(x + 1, y), corner(x, y + 1));
        add(result, corner(x, y + 1), corner(x + 1, y), corner(x + 1, y + 1));
    }
    return result;
}

Triangles soup(double count, double extent, double size, double offset)
{
    Triangles result;
    while (count-- > 0)
    {
        Point p[3], at = {offset + uniform(-extent, extent), uniform(-extent, extent), uniform(-extent, extent)};
        for (int i = 0; i < 9; ++i)
        {
            p[i / 3][i % 3] = at[i % 3] + uniform(-size, size);
        }
        add(result, p[0], p[1], p[2]);
    }
    return result;
}

// All hits, and the nearest one, are those of a loop over all triangles. Returns how many there are.
size_t checkHits(const Triangles &triangles, const pfHierarchy &hierarchy, const pfLocalSegment &segment)
{
    const auto isSame = [](const pfTriangleHit &a, const pfTriangleHit &b) { return memcmp(&a, &b, sizeof a) == 0; };
    const auto keyOf = [](const pfTriangleHit &hit) { return std::pair(hit.t, hit.triangle.prim); };
    std::vector<pfTriangleHit> expected, found;
    pfTriangleHit hit;
    for (const pfTriangle &triangle : triangles)
    {
        if (pfHitTriangle(triangle, segment, hit) && hit.t >= segment.least && hit.t <= segment.most)
        {
            expected.push_back(hit);
        }
    }
    pfAllHits(hierarchy, segment, found);
    std::ranges::sort(expected, {}, keyOf), std::ranges::sort(found, {}, keyOf);
    EXPECT_TRUE(std::ranges::equal(found, expected, isSame)) << found.size() << " hits for " << expected.size();
    EXPECT_TRUE(pfNearestHit(hierarchy, segment, hit) ? !expected.empty() && isSame(hit, expected[0])
                                                      : expected.empty());
    return expected.size();
}

// Vertical, along an axis or any way; from far or near, through a vertex, an edge or anywhere.
pfLocalSegment segmentAt(const Triangles &triangles)
{
    const auto &corners = triangles[anInt(0, static_cast<int>(triangles.size()) - 1)].corners;
    const double weights[3][2] = {{0, 0}, {uniform(0, 1), 0}, {uniform(0, 0.5), uniform(0, 0.5)}};
    const auto &[b, c] = weights[anInt(0, 2)];
    const int kind = anInt(0, 5);
    const double size = std::pow(2.0, anInt(-1, 8)) * std::fabs(corners[0][0] - corners[1][0]);
    pfLocalSegment segment = {{}, {}, 0, anInt(0, 3) != 0 ? 2 : uniform(0, 2)};
    for (int i = 0; i < 3; ++i)
    {
        const bool runs = kind < 2 ? i == 2 : kind == 2 ? i == 0 : kind == 3 ? i != 1 : true;
        segment.direction[i] = runs ? size * uniform(-1, 1) : std::copysign(0.0, anInt(0, 1) - 1);
        segment.origin[i] = (1 - b - c) * corners[0][i] + b * corners[1][i] + c * corners[2][i] - segment.direction[i];
    }
    return segment;
}

TEST(PfHierarchy, FindsWhatALoopFinds)
{
    Triangles same(70, soup(1, 1, 1, 0)[0]), plate = field(16, {0, 0, 0}, 1, 3), wall, growing;
    for (uint32_t i = 0; i < same.size(); ++i)
    {
        same[i].prim = (i * 37) % 70;
    }
    add(plate, {-1e4, -1e4, 1}, {1e4, -1e4, 1}, {0, 1e4, 1});
    for (int i = 0; i < 200; ++i)
    {
        add(wall, {5, i % 20 * 1.0, i / 20 * 1.0}, {5, i % 20 + 1.0, i / 20 * 1.0}, {5, i % 20 * 1.0, i / 20 + 1.0});
        const double size = std::pow(1.5, i - 150);
        add(growing, {0, 0, -size}, {size, 0, size / 2}, {0, size, size});
    }
    std::vector<Triangles> scenes = {
        same, plate, wall, growing, field(20, {1e5, -1e5, 500}, 1, 4), field(13, {0, 0, 0}, 0.1, 0)};
    constexpr double kSoups[][4] = {{1, 10, 1, 0},          {5, 10, 5, 0},      {300, 100, 1, 0},
                                    {300, 10, 30, 0},       {300, 1e3, 1, 1e5}, {100, 1e30, 1e30, 0},
                                    {100, 1e-42, 5e-43, 0}, {100, 1e3, 1e-3, 0}};
    for (const auto &[count, extent, size, offset] : kSoups)
    {
        scenes.push_back(soup(count, extent, size, offset));
    }
    // More blocks at a point than there is room for, at home in four cells of each level of the grid.
    for (const double size : {1.0, 4.0, 16.0})
    {
        Triangles &crowded = scenes.emplace_back(field(20, {0, 0, 0}, 1, 0));
        for (int i = 0; i < 120; ++i)
        {
            const double x = 10 - uniform(0, size), y = 10 - uniform(0, size), z = uniform(0, 1);
            for (int k = 0; k < 4; ++k) // a block of them
            {
                add(crowded, {x, y, z}, {10 + size, y, z}, {x, 10 + size, z});
            }
        }
    }
    size_t hits = 0;
    for (const Triangles &scene : scenes)
    {
        SCOPED_TRACE(&scene - scenes.data());
        const Hierarchy hierarchy = hierarchyOf(scene);
        ASSERT_NE(hierarchy, nullptr);
        for (int i = 0; i < 2000 && !HasFailure(); ++i)
        {
            hits += checkHits(scene, *hierarchy, segmentAt(scene));
        }
    }
    EXPECT_GT(hits, 20000U);
}

TEST(PfHierarchy, FindsWhatIsInTheLastCells)
{
    for (int i = 0; i < 40 * 16 && !HasFailure(); ++i) // where prints end, or cells begin behind all of them
    {
        const int edge = i / 16 + 1;
        const Triangles scene = field(edge, {0, 0, 0}, 1, 3);
        const pfLocalSegment down = {{edge - i % 4 / 4.0, edge - i / 4 % 4 / 4.0, 9}, {0, 0, -1}, 0, 10};
        EXPECT_GT(checkHits(scene, *hierarchyOf(scene), down), 0U) << edge;
    }
}

// Whether a line hits a triangle, from whole numbers, exactly: a closed one, but not on edge.
bool isHitExactly(const pfTriangle &triangle, const int (&origin)[3], const int (&direction)[3])
{
    const int k = direction[2] != 0 ? 2 : direction[1] != 0 ? 1 : 0, i = (k + 1) % 3, j = (k + 2) % 3;
    int64_t x[3], y[3];
    for (int c = 0; c < 3; ++c)
    {
        const auto from = [&](int axis) { return static_cast<int64_t>(triangle.corners[c][axis]) - origin[axis]; };
        x[c] = from(i) * direction[k] - from(k) * direction[i];
        y[c] = from(j) * direction[k] - from(k) * direction[j];
    }
    const auto [least, most] =
        std::minmax({x[0] * y[1] - y[0] * x[1], x[1] * y[2] - y[1] * x[2], x[2] * y[0] - y[2] * x[0]});
    return (least >= 0 || most <= 0) && (least != 0 || most != 0);
}

TEST(PfHierarchy, IsClosedAtEdgesAndVerticesAndAccurateFarAway)
{
    for (const int offset : {0, 100000, -100000})
    {
        const Triangles triangles = field(24, {1.0 * offset, -1.0 * offset, 0}, 4, 9);
        const Hierarchy hierarchy = hierarchyOf(triangles);
        size_t most = 0;
        for (int i = 0; i < 5000 && !HasFailure(); ++i)
        {
            const int target[3] = {offset + anInt(0, 96), -offset + anInt(0, 96), anInt(0, 9)}, kind = anInt(0, 3);
            const int direction[3] = {kind == 0 ? 0 : anInt(-9, 9), kind < 2 ? 0 : anInt(-9, 9), anInt(-9, 9)};
            pfLocalSegment segment = {{}, {}, -1000, 1000};
            int origin[3];
            for (int axis = 0; axis < 3; ++axis)
            {
                segment.origin[axis] = origin[axis] = target[axis] - 100 * direction[axis];
                segment.direction[axis] = direction[axis];
            }
            pfTriangleHit hit;
            const auto isRight = [&](const pfTriangle &triangle)
            { return pfHitTriangle(triangle, segment, hit) == isHitExactly(triangle, origin, direction); };
            EXPECT_TRUE(i % 4 != 0 || std::ranges::all_of(triangles, isRight)) << i; // which takes long with 32 bits
            most = std::max(most, checkHits(triangles, *hierarchy, segment));

            double x = uniform(8, 88), y = uniform(8, 88);
            x = offset + (i % 3 == 0 ? std::round(x / 4) * 4 : x),
            y = -offset + (i % 2 == 0 ? std::round(y / 4) * 4 : y);
            ASSERT_TRUE(pfNearestHit(*hierarchy, {{x, y, 500}, {0, 0, -2}, 0, 1000}, hit)) << i;
            const auto &corners = hit.triangle.corners;
            const long double b = hit.weights[0], c = hit.weights[1], t = hit.t;
            const auto errorAlong = [&](int axis, long double place)
            { return std::fabs((1 - b - c) * corners[0][axis] + b * corners[1][axis] + c * corners[2][axis] - place); };
            EXPECT_LE(std::max(errorAlong(2, 500 - 2 * t), errorAlong(0, x)), 1e-9L);
            // From up to 150 km away, so steep that it passes no side of the field: nothing slips through the sheet.
            const double u = uniform(-0.2, 0.2), v = uniform(-0.2, 0.2), far = std::pow(10, uniform(1, 5.17));
            EXPECT_TRUE(
                pfNearestHit(*hierarchy, {{x + far * u, y + far * v, 4.5 + far}, {-u, -v, -1}, 0, 2 * far}, hit));
        }
        EXPECT_GE(most, 6U);
    }
}

TEST(PfHierarchy, StandsWhatIsNoSegment)
{
    const Triangles triangles = field(9, {0, 0, 0}, 1, 2);
    const Hierarchy hierarchy = hierarchyOf(triangles), none = hierarchyOf({});
    const double odd[] = {NAN, HUGE_VAL, -HUGE_VAL, DBL_MAX, -DBL_MAX, DBL_TRUE_MIN, 0.0, -0.0, 4.5, 1e30};
    for (int i = 0; i < 20000 && !HasFailure(); ++i)
    {
        double numbers[8];
        std::ranges::generate(numbers, [&] { return anInt(0, 2) == 0 ? odd[anInt(0, 9)] : uniform(-9, 9); });
        pfLocalSegment segment;
        memcpy(&segment, numbers, sizeof numbers);
        const bool isFinite = std::all_of(numbers, numbers + 6, [](double x) { return std::isfinite(x); });
        EXPECT_TRUE(checkHits(triangles, *hierarchy, segment) == 0 || isFinite) << i;
        checkHits({}, *none, segment);
    }
    const pfLocalSegment downs[] = {{{4.5, 4.25, 9}, {0.0, -0.0, -1}, 0, 10},
                                    {{4.5, 4.25, -9}, {-0.0, 0, 1e-300}, 0, 1e302},
                                    {{4.5, 4.25, 1e30}, {0, 0, -1e30}, 0, 2},
                                    {{4.5, 4.25, 9}, {0, 0, -1}, 0, HUGE_VAL}};
    for (const pfLocalSegment &down : downs)
    {
        EXPECT_GT(checkHits(triangles, *hierarchy, down), 0U);
    }
}

TEST(PfHierarchy, GivesAllBackWhenMemoryRunsOut)
{
    const Triangles triangles = field(30, {0, 0, 0}, 1, 2);
    int failures = 0;
    for (bool done = false; !done; ++failures)
    {
        left = failures;
        done = hierarchyOf(triangles) != nullptr;
        left = -1;
    }
    EXPECT_GT(failures, 5);
}

} // namespace
