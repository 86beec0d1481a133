#include <gtest/gtest.h>

#include <tolvin/performer/pfhierarchy.hpp>
#include <tolvin/performer/pfmemory.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <random>
#include <set>

// How many allocations are left until one fails; none fails below 0.
static int left = -1;

static bool fails()
{
    return left >= 0 && left-- == 0;
}

extern "C" void *__real_pfMalloc(size_t bytes, void *arena);
extern "C" void *__wrap_pfMalloc(size_t bytes, void *arena)
{
    return fails() ? nullptr : __real_pfMalloc(bytes, arena);
}

[[gnu::noinline]] void *operator new(size_t bytes)
{
    void *memory = fails() ? nullptr : malloc(bytes);
    return memory != nullptr ? memory : throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void *memory) noexcept
{
    free(memory);
}

[[gnu::noinline]] void operator delete(void *memory, size_t) noexcept
{
    free(memory);
}

namespace
{

using Triangles = std::vector<pfTriangle>;
using Hits = std::vector<pfTriangleHit>;
using Hierarchy = std::unique_ptr<pfHierarchy, decltype(&pfFree)>;
using Point = std::array<double, 3>;

std::mt19937_64 generator(11);

double uniform(double least, double most)
{
    return std::uniform_real_distribution<double>(least, most)(generator);
}

int anInt(int least, int most)
{
    return std::uniform_int_distribution<int>(least, most)(generator);
}

Hierarchy hierarchyOf(const Triangles &triangles)
{
    return {pfBuildHierarchy(triangles, nullptr), pfFree};
}

void add(Triangles &triangles, const Point &a, const Point &b, const Point &c)
{
    pfTriangle triangle = {{}, static_cast<uint32_t>(triangles.size())};
    const Point *corners[] = {&a, &b, &c};
    for (int i = 0; i < 9; ++i)
    {
        triangle.corners[i / 3][i % 3] = static_cast<float>((*corners[i / 3])[static_cast<size_t>(i % 3)]);
    }
    triangles.push_back(triangle);
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

Triangles soup(int count, double extent, double size, double offset)
{
    Triangles result;
    for (int i = 0; i < count; ++i)
    {
        const auto around = [size](const Point &p) -> Point {
            return {p[0] + uniform(-size, size), p[1] + uniform(-size, size), p[2] + uniform(-size, size)};
        };
        const Point middle = {offset + uniform(-extent, extent), uniform(-extent, extent), uniform(-extent, extent)};
        add(result, around(middle), around(middle), around(middle));
    }
    return result;
}

bool isBefore(const pfTriangleHit &a, const pfTriangleHit &b)
{
    return a.t != b.t ? a.t < b.t : a.triangle.prim < b.triangle.prim;
}

Hits bruteForce(const Triangles &triangles, const pfLocalSegment &segment)
{
    Hits hits;
    for (const pfTriangle &triangle : triangles)
    {
        pfTriangleHit hit;
        if (pfHitTriangle(triangle, segment, hit) && hit.t >= segment.least && hit.t <= segment.most)
        {
            hits.push_back(hit);
        }
    }
    std::ranges::sort(hits, isBefore);
    return hits;
}

Hits allHits(const pfHierarchy &hierarchy, const pfLocalSegment &segment)
{
    Hits hits;
    pfAllHits(hierarchy, segment, hits);
    std::ranges::sort(hits, isBefore);
    return hits;
}

bool isSame(const pfTriangleHit &a, const pfTriangleHit &b)
{
    return a.t == b.t && a.weights[0] == b.weights[0] && a.weights[1] == b.weights[1] &&
           memcmp(&a.triangle, &b.triangle, sizeof a.triangle) == 0;
}

// Vertical, along an axis or any way; from far or near, through a vertex, an edge or anywhere.
pfLocalSegment segmentAt(const Triangles &triangles)
{
    const pfTriangle &triangle = triangles[static_cast<size_t>(anInt(0, static_cast<int>(triangles.size()) - 1))];
    const double weights[3][2] = {{0, 0}, {uniform(0, 1), 0}, {uniform(0, 0.5), uniform(0, 0.5)}};
    const auto &[b, c] = weights[anInt(0, 2)];
    const int kind = anInt(0, 5);
    const double size = std::pow(2.0, anInt(-1, 8)) * std::fabs(triangle.corners[0][0] - triangle.corners[1][0]);
    pfLocalSegment segment = {{}, {}, 0, anInt(0, 3) != 0 ? 2 : uniform(0, 2)};
    for (int i = 0; i < 3; ++i)
    {
        const double at =
            (1 - b - c) * triangle.corners[0][i] + b * triangle.corners[1][i] + c * triangle.corners[2][i];
        const bool runs = kind < 2 ? i == 2 : kind == 2 ? i == 0 : kind == 3 ? i != 1 : true;
        segment.direction[i] = runs ? size * uniform(-1, 1) : std::copysign(0.0, anInt(0, 1) - 1);
        segment.origin[i] = at - segment.direction[i];
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
    const Triangles scenes[] = {soup(1, 10, 1, 0),
                                soup(5, 10, 5, 0),
                                soup(300, 100, 1, 0),
                                soup(300, 10, 30, 0),
                                soup(300, 1e3, 1, 1e5),
                                soup(100, 1e30, 1e30, 0),
                                soup(100, 1e-42, 5e-43, 0),
                                soup(100, 1e3, 1e-3, 0),
                                field(20, {1e5, -1e5, 500}, 1, 4),
                                field(13, {0, 0, 0}, 0.1, 0),
                                same,
                                plate,
                                wall,
                                growing};
    size_t hits = 0, number = 0;
    for (const Triangles &scene : scenes)
    {
        SCOPED_TRACE(number++);
        const Hierarchy hierarchy = hierarchyOf(scene);
        ASSERT_NE(hierarchy, nullptr);
        for (int i = 0; i < 2000; ++i)
        {
            const pfLocalSegment segment = segmentAt(scene);
            const Hits expected = bruteForce(scene, segment), found = allHits(*hierarchy, segment);
            ASSERT_TRUE(std::ranges::equal(found, expected, isSame)) << i << ": " << found.size() << expected.size();
            pfTriangleHit nearest;
            ASSERT_EQ(pfNearestHit(*hierarchy, segment, nearest), !expected.empty()) << i;
            ASSERT_TRUE(expected.empty() || isSame(nearest, expected[0])) << i;
            hits += expected.size();
        }
    }
    EXPECT_GT(hits, 20000U);
}

// Which triangles a line hits, from whole numbers, exactly: closed ones, but not on edge.
std::set<uint32_t> exactHits(const Triangles &triangles, const int (&origin)[3], const int (&direction)[3])
{
    std::set<uint32_t> hits;
    const int k = direction[2] != 0 ? 2 : direction[1] != 0 ? 1 : 0, i = (k + 1) % 3, j = (k + 2) % 3;
    for (const pfTriangle &triangle : triangles)
    {
        int64_t x[3], y[3], edges[3];
        for (int c = 0; c < 3; ++c)
        {
            const auto from = [&](int axis) { return static_cast<int64_t>(triangle.corners[c][axis]) - origin[axis]; };
            x[c] = from(i) * direction[k] - from(k) * direction[i];
            y[c] = from(j) * direction[k] - from(k) * direction[j];
        }
        for (int c = 0; c < 3; ++c)
        {
            edges[c] = x[c] * y[(c + 1) % 3] - y[c] * x[(c + 1) % 3];
        }
        const auto [least, most] = std::ranges::minmax(edges);
        if ((least >= 0 || most <= 0) && (least != 0 || most != 0))
        {
            hits.insert(triangle.prim);
        }
    }
    return hits;
}

TEST(PfHierarchy, HitsAllTrianglesAtEdgesAndVertices)
{
    for (const int offset : {0, 100000, -100000})
    {
        const Triangles triangles = field(24, {1.0 * offset, -1.0 * offset, 0}, 4, 9);
        const Hierarchy hierarchy = hierarchyOf(triangles);
        size_t most = 0;
        for (int i = 0; i < 5000; ++i)
        {
            const int target[3] = {offset + anInt(0, 96), -offset + anInt(0, 96), anInt(0, 9)};
            const int kind = anInt(0, 3);
            const int direction[3] = {kind == 0 ? 0 : anInt(-9, 9), kind < 2 ? 0 : anInt(-9, 9), anInt(-9, 9)};
            if (direction[0] == 0 && direction[1] == 0 && direction[2] == 0)
            {
                continue;
            }
            pfLocalSegment segment = {{}, {}, -1000, 1000};
            int origin[3];
            for (int axis = 0; axis < 3; ++axis)
            {
                origin[axis] = target[axis] - 100 * direction[axis];
                segment.origin[axis] = origin[axis];
                segment.direction[axis] = direction[axis];
            }
            std::set<uint32_t> found;
            for (const pfTriangleHit &hit : allHits(*hierarchy, segment))
            {
                EXPECT_TRUE(found.insert(hit.triangle.prim).second);
            }
            ASSERT_EQ(found, exactHits(triangles, origin, direction)) << i;
            most = std::max(most, found.size());
        }
        EXPECT_GE(most, 6U);
    }
}

TEST(PfHierarchy, LetsNothingThroughAndIsAccurateFarAway)
{
    for (const Point &origin : {Point{0, 0, 0}, Point{1e5, 1e5, 1000}, Point{-1e5, 99999, -100}})
    {
        const Triangles triangles = field(30, origin, 1, 5);
        const Hierarchy hierarchy = hierarchyOf(triangles);
        for (int i = 0; i < 3000; ++i)
        {
            const double x = uniform(2, 28), y = uniform(2, 28);
            const auto grid = [&](double value) { return i % 3 == 0 ? std::round(value) : value; };
            const Point at = {origin[0] + grid(x), origin[1] + (i % 2 == 0 ? std::round(y) : y), origin[2]};
            pfTriangleHit hit;
            const pfLocalSegment down = {{at[0], at[1], at[2] + 500}, {0, 0, -2}, 0, 1000};
            ASSERT_TRUE(pfNearestHit(*hierarchy, down, hit)) << i;
            long double height = 0, place = 0;
            const long double weights[] = {1 - static_cast<long double>(hit.weights[0]) - hit.weights[1],
                                           hit.weights[0], hit.weights[1]};
            for (int c = 0; c < 3; ++c)
            {
                height += weights[c] * hit.triangle.corners[c][2];
                place += weights[c] * hit.triangle.corners[c][0];
            }
            EXPECT_NEAR(static_cast<double>(height), down.origin[2] - 2 * hit.t, 1e-9);
            EXPECT_NEAR(static_cast<double>(place), at[0], 1e-9);

            // From up to 150 km away, so steep that it passes no side of the field: the sheet is closed.
            const double way[3] = {uniform(-0.2, 0.2), uniform(-0.2, 0.2), 1};
            const double length = std::pow(10, uniform(1, 5.17));
            const pfLocalSegment slanting = {
                {at[0] + length * way[0], at[1] + length * way[1], at[2] + 2.5 + length * way[2]},
                {-way[0], -way[1], -way[2]},
                0,
                2 * length};
            EXPECT_TRUE(pfNearestHit(*hierarchy, slanting, hit)) << i;
        }
    }
}

TEST(PfHierarchy, StandsWhatIsNoSegment)
{
    const Triangles triangles = field(9, {0, 0, 0}, 1, 2);
    const Hierarchy hierarchy = hierarchyOf(triangles), none = hierarchyOf({});
    const double odd[] = {NAN, HUGE_VAL, -HUGE_VAL, DBL_MAX, -DBL_MAX, DBL_TRUE_MIN, 0.0, -0.0, 4.5, 1e30};
    pfTriangleHit hit;
    for (int i = 0; i < 20000; ++i)
    {
        double numbers[8];
        std::ranges::generate(numbers, [&] { return anInt(0, 2) == 0 ? odd[anInt(0, 9)] : uniform(-9, 9); });
        pfLocalSegment segment;
        memcpy(&segment, numbers, sizeof numbers);
        const Hits expected = bruteForce(triangles, segment);
        ASSERT_TRUE(std::ranges::equal(allHits(*hierarchy, segment), expected, isSame)) << i;
        ASSERT_EQ(pfNearestHit(*hierarchy, segment, hit), !expected.empty()) << i;
        ASSERT_FALSE(pfNearestHit(*none, segment, hit));
        const bool isFinite = std::all_of(numbers, numbers + 6, [](double x) { return std::isfinite(x); });
        ASSERT_TRUE(expected.empty() || isFinite);
    }
    const pfLocalSegment downs[] = {{{4.5, 4.25, 9}, {0.0, -0.0, -1}, 0, 10},
                                    {{4.5, 4.25, -9}, {-0.0, 0, 1e-300}, 0, 1e302},
                                    {{4.5, 4.25, 1e30}, {0, 0, -1e30}, 0, 2},
                                    {{4.5, 4.25, 9}, {0, 0, -1}, 0, HUGE_VAL}};
    for (const pfLocalSegment &down : downs)
    {
        EXPECT_TRUE(pfNearestHit(*hierarchy, down, hit));
    }
}

TEST(PfHierarchy, GivesAllBackWhenMemoryRunsOut)
{
    const Triangles triangles = field(30, {0, 0, 0}, 1, 2);
    int failures = 0;
    for (bool done = false; !done; ++failures)
    {
        left = failures;
        const Hierarchy hierarchy = hierarchyOf(triangles);
        left = -1;
        done = hierarchy != nullptr;
    }
    EXPECT_GT(failures, 5);
}

} // namespace
