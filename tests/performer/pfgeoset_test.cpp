// GeoSets, and the triangles that intersection finds in them. With the sources, for what is private.
#include "support/capture.h"
#include "support/fullarena.h"

#include <gtest/gtest.h>

#include <tolvin/performer/pf.h>
#include <tolvin/performer/pfgeoset.hpp>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <vector>

using Point = std::array<float, 3>;

static void *const arena = (pfSharedArenaSize(4 << 20), pfGetSharedArena());

using Triangles = std::vector<std::array<unsigned, 4>>; // primitive, numbers of the corners

TEST(PfGeoSet, BoxAndTrianglesAreOfTheVerticesThatPrimitivesUse)
{
    using Extents = std::array<float, 6>;
    struct
    {
        int type, number;
        std::vector<int> lengths;
        std::vector<unsigned short> indices;
        int vertices, greatest;
        Triangles expected; // in any order of the corners that runs the same way, the lowest first
    } cases[] = {{PFGS_POINTS, 6, {}, {}, 6, 5, {}},
                 {PFGS_LINES, 3, {}, {}, 6, 5, {}},
                 {PFGS_TRIS, 2, {}, {}, 6, 5, {{0, 0, 1, 2}, {1, 3, 4, 5}}},
                 {PFGS_TRIS, 1, {}, {7, 2, 4}, 3, 7, {{0, 2, 4, 7}}},
                 {PFGS_TRIS, 1, {}, {7, 4, 2}, 3, 7, {{0, 2, 7, 4}}},
                 {PFGS_QUADS, 2, {}, {}, 8, 7, {{0, 0, 1, 2}, {0, 0, 2, 3}, {1, 4, 5, 6}, {1, 4, 6, 7}}},
                 {PFGS_QUADS, -2, {}, {}, 0, 0, {}},
                 {PFGS_LINESTRIPS, 2, {2, 4}, {}, 6, 5, {}},
                 {PFGS_TRISTRIPS,
                  3,
                  {3, -9, 5},
                  {0, 1, 2, 0, 4, 1, 5, 2},
                  8,
                  5,
                  {{0, 0, 1, 2}, {2, 0, 4, 1}, {2, 1, 4, 5}, {2, 1, 5, 2}}},
                 {PFGS_TRISTRIPS, 1, {6}, {0, 2, 1, 1, 4, 3}, 6, 4, {{0, 0, 2, 1}, {0, 1, 3, 4}}},
                 {PFGS_TRIFANS, 3, {4, 2, 3}, {}, 9, 8, {{0, 0, 1, 2}, {0, 0, 2, 3}, {2, 6, 7, 8}}},
                 {PFGS_POLYS, 1, {5}, {9, 5, 6, 7, 8}, 5, 9, {{0, 5, 6, 9}, {0, 6, 7, 9}, {0, 7, 8, 9}}},
                 {PFGS_POLYS, 4, {}, {}, 0, 0, {}}};
    pfGeoSet *gset = pfNewGSet(nullptr);
    pfBox box = {{1, 2, 3}, {4, 5, 6}};
    pfGSetBBox(gset, &box, PFBOUND_DYNAMIC);
    for (auto &[type, number, lengths, indices, vertices, greatest, expected] : cases)
    {
        // Just as many as are used, so that reading on would show. No three of them are on one line.
        std::vector<Point> points(static_cast<size_t>(greatest) + 1);
        std::ranges::generate(points, [i = -1.0f]() mutable { return ++i, Point{i, -i, i * i}; });
        pfGSetNumPrims(gset, number), pfGSetPrimType(gset, type);
        pfGSetPrimLengths(gset, lengths.empty() ? nullptr : lengths.data());
        pfGSetAttr(gset, PFGS_COORD3, PFGS_PER_VERTEX, points.data(), indices.empty() ? nullptr : indices.data());
        const float least = indices.empty() ? 0 : *std::ranges::min_element(indices),
                    most = static_cast<float>(greatest);
        EXPECT_EQ(pfGetGSetNumVertices(gset), vertices) << type;
        EXPECT_EQ(pfGetGSetBBox(gset, &box), PFBOUND_DYNAMIC);
        EXPECT_EQ(std::bit_cast<Extents>(box), (Extents{least, -most, least * least, most, -least, most * most}))
            << type;
        Triangles found;
        for (const pfTriangle &t : pfTrianglesOf(*gset))
        {
            std::array<unsigned, 3> corners;
            std::ranges::transform(t.corners, corners.begin(),
                                   [](const pfVec3 &v) { return static_cast<unsigned>(v[0]); });
            std::rotate(corners.begin(), std::ranges::min_element(corners), corners.end());
            found.push_back({t.prim, corners[0], corners[1], corners[2]});
        }
        EXPECT_EQ(found, expected) << type;
        EXPECT_EQ(pfHierarchyOf(*gset) == nullptr, expected.empty());
        pfGSetAttr(gset, PFGS_COORD3, PFGS_OFF, points.data(), nullptr);
        EXPECT_TRUE(pfTrianglesOf(*gset).empty() && !pfHierarchyOf(*gset));
        pfGSetAttr(gset, PFGS_COORD3, PFGS_PER_VERTEX, nullptr, nullptr);
        EXPECT_TRUE(pfTrianglesOf(*gset).empty());
    }
    float odd[] = {NAN, 1, NAN, -INFINITY, NAN, NAN};
    pfGSetAttr(gset, PFGS_COORD3, PFGS_PER_VERTEX, odd, nullptr);
    pfGSetPrimType(gset, PFGS_LINES), pfGSetNumPrims(gset, 1), pfGSetBBox(gset, nullptr, PFBOUND_STATIC);
    pfGSetNumPrims(gset, INT_MAX);
    EXPECT_EQ(pfGetGSetNumVertices(gset), INT_MAX);
    EXPECT_EQ(pfGetGSetBBox(gset, &box), PFBOUND_STATIC);
    EXPECT_EQ(std::bit_cast<Extents>(box), (Extents{-INFINITY, 1, 0, -INFINITY, 1, 0}));
    EXPECT_EQ(pfDelete(gset), 1);
}

TEST(PfGeoSet, KeepsAttributesThroughMisuse)
{
    pfGeoSet *gset = pfNewGSet(arena);
    void *list;
    unsigned short index, *indices;
    pfGSetAttr(gset, PFGS_NORMAL3, PFGS_PER_PRIM, &list, &index);
    EXPECT_EQ(linesOf([=] { pfGSetAttr(gset, 4, 0, nullptr, nullptr), pfGSetAttr(gset, 1, -1, nullptr, nullptr); }), 2);
    EXPECT_EQ(linesOf([=] { pfGSetAttr(gset, PFGS_COORD3, PFGS_OVERALL, gset, nullptr), pfGSetPrimType(gset, 8); }), 2);
    EXPECT_EQ(linesOf([&] { pfGSetBBox(gset, nullptr, 3), pfGetGSetAttrLists(gset, -1, &list, &indices); }), 2);
    EXPECT_TRUE(!list && !indices && pfGetGSetAttrBind(gset, PFGS_NORMAL3) == PFGS_PER_PRIM);
    pfGetGSetAttrLists(gset, PFGS_NORMAL3, &list, &indices);
    EXPECT_TRUE(list == &list && indices == &index);
    EXPECT_EQ(pfGetGSetAttrBind(gset, PFGS_COORD3) + pfGetGSetPrimType(gset) + pfGetGSetBBox(gset, nullptr), 0);
    EXPECT_EQ(pfDelete(gset), 1);
}

TEST(PfGeoSet, TrianglesWithoutAreaAreTheExactlyFlatOnes)
{
    const auto whole = [](int limit) { return static_cast<float>(lrand48() % (2 * limit + 1) - limit); };
    for (int i = 0; i < 20000; ++i)
    {
        // Corners on one line, all without rounding; then one of them moved by the least there is.
        const float scale = std::ldexp(1.0f, static_cast<int>(lrand48() % 200) - 100);
        pfTriangle t = {};
        const float along[] = {0, 1 + std::abs(whole(500)), -1 - std::abs(whole(500))};
        for (int axis = 0; axis < 3; ++axis)
        {
            const float start = whole(1 << 22), step = 1 + std::abs(whole(1000));
            for (int corner = 0; corner < 3; ++corner)
            {
                t.corners[(corner + i) % 3][axis] = (start + along[corner] * step) * scale;
            }
        }
        float &moved = t.corners[lrand48() % 3][lrand48() % 3];
        const bool wasFlat = !pfIsTriangle(t);
        moved = std::nextafter(moved, i % 2 ? INFINITY : -INFINITY);
        const bool isFlat = !pfIsTriangle(t);
        moved = i % 4 < 2 ? NAN : INFINITY;
        ASSERT_TRUE(wasFlat && !isFlat && !pfIsTriangle(t)) << i;
    }
    // Differences that no double holds: on one line but for 1e-20, or not.
    EXPECT_TRUE(pfIsTriangle({{{1e30f, 1e30f, 0}, {1, 1 + 1e-7f, 0}, {-1e-30f, 0, 0}}, 0}));
    EXPECT_TRUE(pfIsTriangle({{{1e30f, 1e30f, 0}, {0, 0, 0}, {1e-20f, 0, 0}}, 0}));
    EXPECT_FALSE(pfIsTriangle({{{1e30f, 1e30f, 0}, {1e-30f, 1e-30f, 0}, {1, 1, 0}}, 0}));
}

TEST(PfGeoSet, HierarchyLastsUntilCoordinatesChange)
{
    std::vector<Point> points = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}};
    int length = 3;
    const tolvin::NothingStays nothingStays;
    pfGeoSet *gset = pfNewGSet(arena);
    const std::function<void()> changes[] = {
        [&] { pfGSetPrimType(gset, PFGS_TRISTRIPS); }, [&] { pfGSetNumPrims(gset, 1); },
        [&] { pfGSetPrimLengths(gset, &length); },
        [&] { pfGSetAttr(gset, PFGS_COORD3, PFGS_PER_VERTEX, points.data(), nullptr); },
        [&] { pfGSetBBox(gset, nullptr, PFBOUND_STATIC); }};
    pfBox box;
    std::ranges::for_each(changes, [](const auto &change) { change(); });
    for (size_t i = 0; i < std::size(changes); ++i)
    {
        points[0][2] = static_cast<float>(i);
        changes[i]();
        EXPECT_FALSE(gset->hierarchy.load());
        EXPECT_TRUE(pfExtentOf(*gset, box) && box.max[2] == points[0][2]) << i;
        const pid_t process = fork();
        process == 0 ? _exit(pfHierarchyOf(*gset) ? 0 : 1) : void();
        int status = -1;
        waitpid(process, &status, 0);
        const pfHierarchy *built = gset->hierarchy.load(); // by the other process
        EXPECT_TRUE(status == 0 && built);
        points[0][2] = 99; // not seen yet
        pfGSetAttr(gset, PFGS_NORMAL3, PFGS_OVERALL, points.data(), nullptr), pfGSetBBox(gset, &box, PFBOUND_DYNAMIC);
        EXPECT_TRUE(pfExtentOf(*gset, box) && box.max[2] != 99);
        EXPECT_EQ(pfHierarchyOf(*gset), built);
    }
    pfGSetNumPrims(gset, 1);
    const std::vector<void *> fill = tolvin::fillersOf(1);
    EXPECT_TRUE(!pfHierarchyOf(*gset) && gset->triangles == kSomeTriangles);
    std::ranges::for_each(fill, pfFree);
    EXPECT_FALSE(pfHierarchyOf(*gset)); // not tried again each time
    pfGSetNumPrims(gset, 1);
    EXPECT_TRUE(pfHierarchyOf(*gset));
    EXPECT_EQ(pfDelete(gset), 1);
}
