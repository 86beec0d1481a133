// Matrices, and the boxes that nodes keep below them.
#include "support/capture.h"
#include "support/fullarena.h"

#include <gtest/gtest.h>

#include <tolvin/performer/pf.h>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

using Matrix = std::array<std::array<double, 4>, 4>;
using Box = std::array<double, 6>;
using Point = std::array<float, 3>;
constexpr Matrix kIdentity = {{{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}}};

static void *const arena = (pfSharedArenaSize(64 << 20), pfGetSharedArena());

static pfNode *asNode(void *node)
{
    return static_cast<pfNode *>(node);
}

static Matrix product(const Matrix &a, const Matrix &b)
{
    Matrix c = {};
    for (int i = 0; i < 64; ++i)
    {
        c[i / 16][i / 4 % 4] += a[i / 16][i % 4] * b[i % 4][i / 4 % 4];
    }
    return c;
}

// About an axis, counter-clockwise seen from its end, for row vectors.
static Matrix turn(int axis, double degrees)
{
    Matrix m = kIdentity;
    const int u = (axis + 1) % 3, v = (axis + 2) % 3;
    m[u][u] = m[v][v] = std::cos(degrees * M_PI / 180);
    m[u][v] = std::sin(degrees * M_PI / 180), m[v][u] = -m[u][v];
    return m;
}

static void expectNear(const pfMatrix m, const Matrix &expected, double tolerance)
{
    for (int i = 0; i < 16; ++i)
    {
        EXPECT_NEAR(m[i / 4][i % 4], expected[i / 4][i % 4], tolerance) << i;
    }
}

TEST(PfMath, EulerAnglesTurnAboutYThenXThenZ)
{
    const float cases[][3] = {{0, 0, 0},       {30, 0, 0},       {0, 30, 0},        {0, 0, 30},      {10, 20, 30},
                              {-170, 89, -45}, {270, -90, 1170}, {359.5f, 180, 61}, {1e4f, -1e4f, 7}};
    for (const auto &[h, p, r] : cases)
    {
        pfMatrix m;
        pfMakeEulerMat(m, h, p, r);
        expectNear(m, product(product(turn(1, r), turn(0, p)), turn(2, h)), 1e-7);
    }
    for (const float angle : {90.0f, 450.0f, -270.0f, 90 + 360 * 65536.0f}) // quarters are exact, however many
    {
        pfMatrix m;
        pfMakeEulerMat(m, angle, angle, angle);
        expectNear(m, {{{-1, 0, 0, 0}, {0, 0, 1, 0}, {0, 1, 0, 0}, {0, 0, 0, 1}}}, 0);
    }
    pfMatrix large, same;
    pfMakeEulerMat(large, 3e38f, 0, 0), pfMakeEulerMat(same, std::fmod(3e38f, 360.0f), 0, 0);
    EXPECT_EQ(memcmp(large, same, sizeof same), 0);
    pfMakeEulerMat(large, NAN, 0, 0);
    EXPECT_TRUE(std::isnan(large[0][0]));
}

TEST(PfMath, ProductsAreRoundedOnceAndMayGoWhereTheyCameFrom)
{
    // 2^24 + 1 is no float; sums in single precision would end at 0.
    pfMatrix steep = {{16777216, 0, 0, 7}, {1, 1, 0, 7}, {0, 0, 1, 7}, {-16777216, 4, 5, 7}}, moved, b;
    pfMatrix a = {{1, 1, 0, 1}, {5, 6, 7, 5}, {1, 2, 3, 3}, {0, 0, 1, 0}};
    pfMultMat(moved, a, steep), pfCopyMat(b, steep), pfCopyMat(b, b), pfMultMat(b, a, b), pfMultMat(a, a, steep);
    expectNear(moved, {{{1, 5, 5, 21}, {6, 26, 32, 161}, {2 - 2 * 16777216.0, 14, 18, 63}, {0, 0, 1, 7}}}, 0);
    EXPECT_TRUE(memcmp(moved, a, sizeof a) == 0 && memcmp(moved, b, sizeof a) == 0);
    Point v = {1, 1, 1};
    pfXformPt3(v.data(), v.data(), steep);
    EXPECT_EQ(v, (Point{1, 5, 6}));
    pfXformVec3(v.data(), v.data(), steep);
    EXPECT_EQ(v, (Point{16777220, 5, 6})); // 2^24 + 5 to even
    const Point far = {3e38f, -3e38f, 0}, near = {0, 1e-30f, 4e-30f}, none = {0, 1e-30f, 1e-30f};
    EXPECT_EQ(pfDistancePt3(far.data(), none.data()), INFINITY);
    EXPECT_FLOAT_EQ(pfDistancePt3(near.data(), none.data()), 3e-30f);
}

TEST(PfDcs, TranslationAndRotationLeaveEachOther)
{
    constexpr Matrix kTwice = {{{2, 0, 0, 0}, {0, 2, 0, 0}, {0, 0, 2, 0}, {1, 2, 3, 1}}};
    pfMatrix m = {{2, 0, 0, 0}, {0, 2, 0, 0}, {0, 0, 2, 0}, {1, 2, 3, 1}}, read = {{9}};
    pfDCS *dcs = pfNewDCS(arena);
    pfSCS *scs = pfNewSCS(m, arena), *const plain = pfNewSCS(nullptr, nullptr);
    pfGetSCSMat(scs, read), expectNear(read, kTwice, 0);
    pfGetSCSMat(plain, read), expectNear(read, kIdentity, 0);
    pfGetDCSMat(dcs, read), expectNear(read, kIdentity, 0);
    pfDCSMat(dcs, m), pfDCSTrans(dcs, 4, 5, 6), pfGetDCSMat(dcs, read);
    expectNear(read, {{kTwice[0], kTwice[1], kTwice[2], {4, 5, 6, 1}}}, 0);
    pfDCSRot(dcs, 90, 0, 0), pfGetSCSMat(reinterpret_cast<pfSCS *>(dcs), read); // the scale has gone
    expectNear(read, {{{0, 1, 0, 0}, {-1, 0, 0, 0}, {0, 0, 1, 0}, {4, 5, 6, 1}}}, 0);
    const auto misuse = [&]
    {
        pfDCS *const wrong[] = {nullptr, reinterpret_cast<pfDCS *>(scs)};
        for (pfDCS *each : wrong)
        {
            pfDCSMat(each, m), pfDCSTrans(each, 0, 0, 0), pfDCSRot(each, 0, 0, 0), pfGetDCSMat(each, read);
        }
    };
    EXPECT_EQ(linesOf(misuse), 8);
    EXPECT_EQ(read[3][2], 6);
    EXPECT_EQ(pfDelete(dcs) + pfDelete(scs) + pfDelete(plain), 3);
}

constexpr Box kNone = {HUGE_VAL, HUGE_VAL, HUGE_VAL, -HUGE_VAL, -HUGE_VAL, -HUGE_VAL};

static void add(Box &box, double x, double y, double z)
{
    const double point[] = {x, y, z};
    for (int axis = 0; axis < 3; ++axis)
    {
        box[axis] = std::min(box[axis], point[axis]), box[axis + 3] = std::max(box[axis + 3], point[axis]);
    }
}

// Boxes of the corners of boxes, all anew, along all ways.
static Box referenceBox(pfNode *node)
{
    Box box = kNone, moved = kNone;
    const bool isGeode = pfIsOfType(node, pfGetGeodeClassType());
    for (int i = 0; !isGeode && i < pfGetNumChildren(reinterpret_cast<pfGroup *>(node)); ++i)
    {
        const Box child = referenceBox(pfGetChild(reinterpret_cast<pfGroup *>(node), i));
        child != kNone ? add(box, child[0], child[1], child[2]), add(box, child[3], child[4], child[5]) : void();
    }
    for (int i = 0; isGeode && i < pfGetNumGSets(reinterpret_cast<pfGeode *>(node)); ++i)
    {
        void *list = nullptr;
        pfGeoSet *gset = pfGetGSet(reinterpret_cast<pfGeode *>(node), i);
        pfGetGSetAttrLists(gset, PFGS_COORD3, &list, nullptr);
        const auto *points = static_cast<Point *>(list);
        std::for_each_n(points, pfGetGSetNumPrims(gset), [&](const Point &p) { add(box, p[0], p[1], p[2]); });
    }
    if (!pfIsOfType(node, pfGetSCSClassType()) || box == kNone)
    {
        return box;
    }
    pfMatrix m;
    pfGetSCSMat(reinterpret_cast<pfSCS *>(node), m);
    for (int corner = 0; corner < 8; ++corner)
    {
        const double x = box[corner & 1 ? 3 : 0], y = box[corner & 2 ? 4 : 1], z = box[corner & 4 ? 5 : 2];
        const auto at = [&](int axis) { return x * m[0][axis] + y * m[1][axis] + z * m[2][axis] + m[3][axis]; };
        add(moved, at(0), at(1), at(2));
    }
    return moved;
}

// The box holds everything, and not much more.
static void checkBox(pfNode *node)
{
    const Box expected = referenceBox(node);
    pfBox found = {{1, 2, 3}, {4, 5, 6}};
    ASSERT_EQ(pfGetNodeBBox(node, &found), expected[0] <= expected[3]);
    for (int axis = 0; axis < 3 && expected[0] <= expected[3]; ++axis)
    {
        const double loose = 1e-6 * std::max(std::fabs(expected[axis]), std::fabs(expected[axis + 3])) + 0.1;
        EXPECT_TRUE(found.min[axis] <= expected[axis] && found.max[axis] >= expected[axis + 3]);
        EXPECT_TRUE(found.min[axis] >= expected[axis] - loose && found.max[axis] <= expected[axis + 3] + loose);
    }
}

// A graph with many ways to its points, and what it is made of.
struct Graph
{
    pfGroup *groups[8]; // children have higher numbers
    pfGeode *geodes[8];
    pfGeoSet *gsets[8];
    Point points[8][4];

    Graph()
    {
        for (int i = 0; i < 8; ++i)
        {
            groups[i] = i % 2 == 0 ? reinterpret_cast<pfGroup *>(pfNewDCS(arena)) : pfNewGroup(arena);
            geodes[i] = pfNewGeode(arena), gsets[i] = pfNewGSet(arena);
            std::fill_n(points[i], 4, Point{float(i), 1, 2});
            pfGSetAttr(gsets[i], PFGS_COORD3, PFGS_PER_VERTEX, points[i], nullptr);
            pfRef(groups[i]), pfRef(geodes[i]), pfRef(gsets[i]);
        }
    }

    void change()
    {
        const auto place = [] { return static_cast<float>(2e5 * drand48() - 1e5); };
        const size_t i = lrand48() % 8, k = lrand48() % 8;
        auto *dcs = reinterpret_cast<pfDCS *>(groups[i / 2 * 2]);
        pfMatrix m;
        pfMakeEulerMat(m, place(), place(), place());
        const auto move = [&] { points[i][k % 4] = {place(), place(), place()}; };
        const std::function<void()> changes[] = {
            [&] { pfDCSMat(dcs, m); },
            [&] { pfDCSTrans(dcs, place(), place(), place()); },
            [&] { i < k ? pfAddChild(groups[i], asNode(groups[k])) : pfAddGSet(geodes[i], gsets[k]); },
            [&] { pfAddChild(groups[i], asNode(geodes[k])); },
            [&] { pfReplaceChild(groups[i], asNode(geodes[k]), asNode(geodes[i])); },
            [&] { pfRemoveGSet(geodes[i], gsets[k]), pfRemoveChild(groups[i], asNode(geodes[k])); },
            [&] { pfRemoveChild(groups[i], asNode(groups[k])); },
            [&] { pfGSetNumPrims(gsets[i], static_cast<int>(k % 5)); },
            [&] { move(), pfGSetBBox(gsets[i], nullptr, PFBOUND_STATIC); },
            [&] { move(), pfGSetAttr(gsets[i], PFGS_COORD3, PFGS_PER_VERTEX, points[i], nullptr); }};
        changes[lrand48() % 10]();
    }
};

TEST(PfNodeBox, FollowsEveryChange)
{
    const tolvin::NothingStays nothingStays;
    for (int round = 0; round < 20; ++round)
    {
        Graph g;
        for (int i = 0; i < 300 && !HasFailure(); ++i)
        {
            SCOPED_TRACE(i);
            g.change();
            const size_t n = lrand48() % 8; // the others are still to be computed, or kept
            checkBox(lrand48() % 4 ? asNode(g.groups[n]) : asNode(g.geodes[n]));
        }
        for (int i = 0; i < 24; ++i) // what holds others first
        {
            void *const node = i < 8 ? static_cast<void *>(g.groups[i]) : g.geodes[i % 8];
            void *const each = i < 16 ? node : g.gsets[i % 8];
            EXPECT_EQ(pfUnref(each) + pfDelete(each), 1);
        }
    }
}

static pfNode *geodeWith(std::vector<Point> &points)
{
    pfGeode *geode = pfNewGeode(arena);
    pfGeoSet *gset = pfNewGSet(arena);
    pfGSetAttr(gset, PFGS_COORD3, PFGS_PER_VERTEX, points.data(), nullptr);
    pfGSetNumPrims(gset, static_cast<int>(points.size())), pfAddGSet(geode, gset);
    return asNode(geode);
}

TEST(PfNodeBox, IsTightWithoutMatricesAndInfiniteRatherThanWrong)
{
    constexpr float kInf = INFINITY;
    using Sides = std::array<float, 6>;
    std::vector<Point> points = {{NAN, 1, 2}, {3, NAN, -5}, {4, 4, NAN}};
    pfDCS *dcs = pfNewDCS(arena);
    pfGroup *group = pfNewGroup(arena);
    pfBox box = {{7, 7, 7}, {7, 7, 7}};
    EXPECT_EQ(pfGetNodeBBox(asNode(dcs), &box) + pfGetNodeBBox(asNode(group), nullptr), 0);
    pfNode *geode = geodeWith(points);
    pfAddChild(group, asNode(dcs)), pfAddChild(reinterpret_cast<pfGroup *>(dcs), geode);
    EXPECT_EQ(pfGetNodeBBox(geode, &box), 1);
    EXPECT_EQ(std::bit_cast<Sides>(box), (Sides{3, 1, -5, 4, 4, 2}));
    pfMatrix matrix = {{1, 0, 0, 0}, {NAN, 2, 0, 0}, {0, 0, kInf, 0}, {0, 0, 0, 1}};
    pfDCSMat(dcs, matrix);
    EXPECT_EQ(pfGetNodeBBox(asNode(group), &box), 1);
    EXPECT_TRUE(box.min[0] == -kInf && box.max[0] == kInf && box.min[1] <= 2 && box.min[1] > 1.9999f &&
                box.max[1] >= 8 && box.max[1] < 8.0001f && box.min[2] == -kInf && box.max[2] == kInf);
    points[0] = {-kInf, 0, 0}, pfMakeIdentMat(matrix), matrix[0][0] = 3e38f, pfDCSMat(dcs, matrix);
    pfGSetNumPrims(pfGetGSet(reinterpret_cast<pfGeode *>(geode), 0), 2);
    EXPECT_EQ(pfGetNodeBBox(asNode(group), &box), 1);
    EXPECT_TRUE(box.min[0] == -kInf && box.max[0] == kInf && box.min[1] <= 0 && box.max[1] > -1e-30f);
    EXPECT_EQ(pfDelete(group), 1);
}

TEST(PfNodeBox, DeepAndManifoldGraphsInSeveralProcesses)
{
    std::vector<Point> points = {{1, 2, 3}};
    std::vector<pfGroup *> levels(10064);
    std::ranges::generate(levels, [] { return pfNewGroup(arena); });
    for (size_t i = 1; i < levels.size(); ++i) // 2^64 ways, then a deep one
    {
        pfAddChild(levels[i - 1], asNode(levels[i])), i < 65 ? pfAddChild(levels[i - 1], asNode(levels[i])) : 0;
    }
    pfDCS *dcs = pfNewDCS(arena);
    pfAddChild(reinterpret_cast<pfGroup *>(dcs), geodeWith(points)), pfAddChild(levels.back(), asNode(dcs));
    const auto expectAt = [](pfGroup *top, int x)
    {
        pfBox box = {};
        EXPECT_EQ(pfGetNodeBBox(asNode(top), &box), 1);
        EXPECT_NEAR(box.min[0], 1 + x, 1e-3);
        EXPECT_NEAR(box.max[0], 1 + x, 1e-3);
    };
    expectAt(levels[0], 0);
    const pid_t process = fork();
    if (process == 0)
    {
        const rlimit small = {1 << 20, 1 << 20};
        setrlimit(RLIMIT_STACK, &small), pfDCSTrans(dcs, 100, 0, 0), expectAt(levels[0], 100);
        _exit(testing::Test::HasFailure());
    }
    int status = -1;
    waitpid(process, &status, 0);
    EXPECT_EQ(status, 0);
    expectAt(levels[0], 100);                // what the other process did
    for (int round = 0; round < 50; ++round) // several threads compute the same boxes
    {
        pfDCSTrans(dcs, static_cast<float>(round), 0, 0);
        const auto ask = [=, top = levels[round % 2 * 30]] { expectAt(top, round); };
        std::thread other(ask);
        ask(), other.join();
    }
    EXPECT_EQ(pfDelete(levels[0]), 1);
}
