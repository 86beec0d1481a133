// Nodes, GeoSets and matrices together.
#include "support/capture.h"

#include <gtest/gtest.h>

#include <tolvin/performer/pf.h>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <climits>
#include <cmath>
#include <cstring>
#include <functional>
#include <vector>

static void *const arena = (pfSharedArenaSize(64 << 20), pfGetSharedArena());

static pfNode *asNode(void *node)
{
    return static_cast<pfNode *>(node);
}

static ptrdiff_t linesOf(const std::function<void()> &action)
{
    return std::ranges::count(capturedStderr(action), '\n');
}

TEST(PfNode, KeepsChildrenInOrderAlsoWhenTheArenaIsFull)
{
    pfGroup *group = pfNewGroup(arena);
    pfNode *const kinds[] = {asNode(pfNewGroup(arena)), asNode(pfNewGeode(arena)), asNode(pfNewGroup(nullptr))};
    std::vector<pfNode *> children;
    std::vector<void *> fill;
    while (pfAddChild(group, kinds[children.size() % 5 % 3]) == 1)
    {
        children.push_back(kinds[children.size() % 5 % 3]);
        while (void *block = children.size() == 300 ? pfMalloc(1, arena) : nullptr)
        {
            fill.push_back(block);
        }
    }
    EXPECT_TRUE(!pfNewGSet(arena) && !pfNewGroup(arena) && !pfNewGeode(arena));
    EXPECT_EQ(pfGetRef(kinds[1]), std::ranges::count(children, kinds[1]));
    std::ranges::for_each(fill, pfFree);
    EXPECT_EQ(pfRemoveChild(group, kinds[1]), 1);
    children.erase(children.begin() + 1);
    for (size_t i = 0; i < children.size(); ++i)
    {
        ASSERT_EQ(pfGetChild(group, static_cast<int>(i)), children[i]) << i;
    }
    EXPECT_EQ(linesOf([=] { EXPECT_FALSE(pfGetChild(group, pfGetNumChildren(group)) || pfGetChild(group, -1)); }), 2);
    EXPECT_EQ(pfDelete(group), 1);
}

TEST(PfNode, RefusesCyclesHoweverManyPathsThereAre)
{
    std::vector<pfGroup *> levels(66);
    std::ranges::generate(levels, [] { return pfNewGroup(nullptr); });
    for (size_t i = 0; i < 64; ++i) // 2^64 ways from 0 to 64
    {
        EXPECT_EQ(pfAddChild(levels[i], asNode(levels[i + 1])) + pfAddChild(levels[i], asNode(levels[i + 1])), 2);
    }
    EXPECT_EQ(linesOf([&] { EXPECT_EQ(pfAddChild(levels[64], asNode(levels[64])), 0); }), 1);
    EXPECT_EQ(linesOf([&] { EXPECT_EQ(pfAddChild(levels[64], asNode(levels[0])), 0); }), 1);
    EXPECT_EQ(pfRef(levels[65]) + pfAddChild(levels[65], asNode(levels[0])), 2);
    EXPECT_EQ(pfUnref(levels[65]) + pfDelete(levels[65]), 1);
}

TEST(PfNode, DeletesWhatNobodyHoldsInAnyProcess)
{
    pfGroup *top = pfNewGroup(arena), *bottom = top, *other = pfNewGroup(arena);
    pfGeoSet *gset = pfNewGSet(arena);
    pfArenaInfo before, after;
    pfGetArenaInfo(&before);
    for (int i = 0; i < 100000; ++i)
    {
        pfGeode *geode = pfNewGeode(arena); // below both
        pfGroup *next = pfNewGroup(arena);
        ASSERT_EQ(pfAddGSet(geode, gset) + pfAddChild(bottom, asNode(geode)) + pfAddChild(other, asNode(geode)), 3);
        ASSERT_EQ(pfAddChild(bottom, asNode(next)), 1);
        bottom = next;
    }
    pfRef(bottom);
    const pid_t process = fork();
    if (process == 0)
    {
        const rlimit small = {1 << 20, 1 << 20};
        setrlimit(RLIMIT_STACK, &small);
        _exit(linesOf([=] { EXPECT_EQ(pfDelete(top), 1); }) != 0 || testing::Test::HasFailure());
    }
    EXPECT_EQ(linesOf([=] { EXPECT_EQ(pfDelete(other), 1); }), 0);
    int status = -1;
    waitpid(process, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(pfUnref(bottom) + pfDelete(bottom), 1);
    pfGetArenaInfo(&after);
    EXPECT_EQ(after.blocksInUse, before.blocksInUse - 3);
}

TEST(PfGeoSet, BoxIsOfTheVerticesThatPrimitivesUse)
{
    using Extents = std::array<float, 6>;
    struct
    {
        int type, number;
        std::vector<int> lengths;
        std::vector<unsigned short> indices;
        int vertices;
        float least, greatest; // points, of which point i is (i, -i, i * i)
    } cases[] = {{PFGS_POINTS, 5, {}, {}, 5, 0, 4},
                 {PFGS_LINES, 3, {}, {}, 6, 0, 5},
                 {PFGS_TRIS, 1, {}, {7, 2, 4}, 3, 2, 7},
                 {PFGS_QUADS, 2, {}, {}, 8, 0, 7},
                 {PFGS_LINESTRIPS, 2, {2, 3}, {}, 5, 0, 4},
                 {PFGS_TRISTRIPS, 3, {3, -9, 4}, {}, 7, 0, 6},
                 {PFGS_TRIFANS, 2, {3, 1}, {9, 8, 7, 3}, 4, 3, 9},
                 {PFGS_POLYS, 9, {}, {}, 0, 0, 0},
                 {PFGS_QUADS, -2, {}, {}, 0, 0, 0}};
    pfGeoSet *gset = pfNewGSet(nullptr);
    pfBox box = {{1, 2, 3}, {4, 5, 6}};
    pfGSetBBox(gset, &box, PFBOUND_DYNAMIC);
    for (auto &[type, number, lengths, indices, vertices, least, greatest] : cases)
    {
        std::vector<std::array<float, 3>> points(static_cast<size_t>(greatest) +
                                                 1); // no more, so that reading on would show
        std::ranges::generate(points, [i = -1.0f]() mutable { return ++i, std::array{i, -i, i * i}; });
        pfGSetNumPrims(gset, number), pfGSetPrimType(gset, type);
        pfGSetPrimLengths(gset, lengths.empty() ? nullptr : lengths.data());
        pfGSetAttr(gset, PFGS_COORD3, PFGS_PER_VERTEX, points.data(), indices.empty() ? nullptr : indices.data());
        EXPECT_EQ(pfGetGSetNumVertices(gset), vertices) << type;
        EXPECT_EQ(pfGetGSetBBox(gset, &box), PFBOUND_DYNAMIC);
        const Extents expected = {least, -greatest, least * least, greatest, -least, greatest * greatest};
        EXPECT_EQ(std::bit_cast<Extents>(box), expected) << type;
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

TEST(PfType, ObjectsOfOtherTypesAreReportedOnce)
{
    void *const objects[] = {pfNewGroup(arena), pfNewGeode(arena), pfNewGSet(arena), pfMalloc(1, arena), nullptr};
    constexpr int kTypes[] = {0b11, 0b101, 0, 0, 0}, kReports[] = {2, 2, 3, 4, 4};
    for (size_t i = 0; i < 5; ++i)
    {
        const auto use = [&, object = objects[i]]
        {
            EXPECT_EQ(pfIsOfType(object, pfGetNodeClassType()) | pfIsOfType(object, pfGetGroupClassType()) << 1 |
                          pfIsOfType(object, pfGetGeodeClassType()) << 2 | pfIsOfType(object, nullptr) << 3,
                      kTypes[i]);
            EXPECT_EQ(pfGetNumChildren(static_cast<pfGroup *>(object)) + pfGetNumGSets(static_cast<pfGeode *>(object)) +
                          pfGetGSetNumPrims(static_cast<pfGeoSet *>(object)) +
                          pfRemoveChild(static_cast<pfGroup *>(objects[0]), asNode(object)),
                      0);
        };
        EXPECT_EQ(linesOf(use), kReports[i]) << i;
    }
    EXPECT_EQ(pfDelete(objects[0]) + pfDelete(objects[1]) + pfDelete(objects[2]) + pfDelete(objects[3]), 4);
}

TEST(PfMath, CopyMatCopiesAllElements)
{
    pfMatrix from = {{1, 2, 3, 4}, {5, 6, 7, 8}, {9, 10, 11, 12}, {13, 14, 15, 16}}, to;
    pfCopyMat(to, from), pfCopyMat(to, to);
    EXPECT_EQ(memcmp(from, to, sizeof from), 0);
}
