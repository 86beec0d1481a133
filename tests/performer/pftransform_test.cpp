// Matrices, and the boxes that nodes keep below them.
#include "support/capture.h"

#include <gtest/gtest.h>

#include <tolvin/performer/pf.h>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <thread>
#include <vector>

using Matrix = std::array<std::array<double, 4>, 4>;
using Box = std::array<double, 6>;
using Point = std::array<float, 3>;
constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr Matrix kIdentity = {{{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}}};

static void *const arena = (pfSharedArenaSize(64 << 20), pfGetSharedArena());

template<typename Kind>
static pfNode *asNode(Kind *node)
{
    return reinterpret_cast<pfNode *>(node);
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

static Matrix asMatrix(const pfMatrix m)
{
    Matrix result;
    std::copy_n(m[0], 16, result[0].begin());
    return result;
}

// About an axis, counter-clockwise seen from its end, for row vectors.
static Matrix turn(int axis, double degrees)
{
    Matrix m = kIdentity;
    const double angle = degrees * M_PI / 180;
    const int u = (axis + 1) % 3, v = (axis + 2) % 3;
    m[u][u] = m[v][v] = std::cos(angle);
    m[u][v] = std::sin(angle), m[v][u] = -std::sin(angle);
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
    // A nose to the left, up, and the right side down; quarters are exact, however many.
    constexpr Point kAxes[] = {{0, 1, 0}, {0, 1, 0}, {1, 0, 0}}, kTo[] = {{-1, 0, 0}, {0, 0, 1}, {0, 0, -1}};
    for (int i = 0; i < 3; ++i)
    {
        for (const float angle : {90.0f, 450.0f, -270.0f, 90 + 360 * 65536.0f})
        {
            pfMatrix m;
            Point to;
            pfMakeEulerMat(m, i == 0 ? angle : 0, i == 1 ? angle : 0, i == 2 ? angle : 0);
            pfXformVec3(to.data(), kAxes[i].data(), m);
            EXPECT_EQ(to, kTo[i]) << i;
        }
    }
    pfMatrix large, same;
    pfMakeEulerMat(large, 3e38f, 0, 0), pfMakeEulerMat(same, std::fmod(3e38f, 360.0f), 0, 0);
    expectNear(large, asMatrix(same), 1e-7);
    pfMakeEulerMat(large, NAN, 0, 0);
    EXPECT_TRUE(std::isnan(large[0][0]));
}

TEST(PfMath, ProductsAreRoundedOnceAndMayGoWhereTheyCameFrom)
{
    pfMatrix a = {{1, 2, 3, 4}, {5, 6, 7, 8}, {9, 10, 11, 12}, {13, 14, 15, 16}}, b, c, moved;
    pfCopyMat(b, a), pfCopyMat(b, b), pfCopyMat(c, a);
    EXPECT_EQ(memcmp(a, b, sizeof a), 0);
    pfMakeEulerMat(b, 1, 2, 3), b[0][3] = 5;
    const Matrix expected = product(asMatrix(a), asMatrix(b));
    pfMultMat(moved, a, b), expectNear(moved, expected, 1e-6);
    pfMultMat(a, a, b), pfMultMat(b, c, b);
    EXPECT_TRUE(memcmp(moved, a, sizeof a) == 0 && memcmp(moved, b, sizeof a) == 0);
    // 2^24 + 1 is no float; sums in single precision would end at 0.
    pfMatrix steep = {{16777216, 0, 0, 7}, {1, 1, 0, 7}, {0, 0, 1, 7}, {-16777216, 4, 5, 7}};
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
    pfMatrix m = {{2, 0, 0, 0}, {0, 2, 0, 0}, {0, 0, 2, 0}, {1, 2, 3, 1}}, read = {{9}};
    pfDCS *dcs = pfNewDCS(arena);
    pfSCS *scs = pfNewSCS(m, arena), *const plain = pfNewSCS(nullptr, nullptr);
    pfGetSCSMat(scs, read), expectNear(read, asMatrix(m), 0);
    pfGetSCSMat(plain, read), expectNear(read, kIdentity, 0);
    pfGetDCSMat(dcs, read), expectNear(read, kIdentity, 0);
    pfDCSMat(dcs, m), pfDCSTrans(dcs, 4, 5, 6), pfGetDCSMat(dcs, read);
    std::copy_n(std::array{4.0f, 5.0f, 6.0f}.data(), 3, m[3]);
    expectNear(read, asMatrix(m), 0);
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
    const std::string said = capturedStderr(misuse);
    EXPECT_EQ(std::ranges::count(said, '\n'), 8) << said;
    EXPECT_EQ(read[3][2], 6);
    EXPECT_EQ(pfDelete(dcs) + pfDelete(scs) + pfDelete(plain), 3);
}

// A graph with many ways to its points, and what it is made of.
struct Graph
{
    std::vector<pfGroup *> groups; // children have higher numbers
    std::vector<pfGeode *> geodes;
    std::vector<pfGeoSet *> gsets;
    std::vector<std::vector<Point>> points;
};

static void add(Box &box, const std::array<double, 3> &point)
{
    for (int axis = 0; axis < 3; ++axis)
    {
        box[axis] = std::min(box[axis], point[axis]), box[axis + 3] = std::max(box[axis + 3], point[axis]);
    }
}

// Boxes of the corners of boxes, all anew, along all ways.
static Box referenceBox(pfNode *node)
{
    constexpr Box kNone = {kInfinity, kInfinity, kInfinity, -kInfinity, -kInfinity, -kInfinity};
    Box box = kNone;
    const bool isGeode = pfIsOfType(node, pfGetGeodeClassType());
    auto *group = reinterpret_cast<pfGroup *>(node);
    for (int i = 0; !isGeode && i < pfGetNumChildren(group); ++i)
    {
        const Box child = referenceBox(pfGetChild(group, i));
        for (int end = 0; child != kNone && end < 6; end += 3)
        {
            add(box, {child[end], child[end + 1], child[end + 2]});
        }
    }
    auto *geode = reinterpret_cast<pfGeode *>(node);
    for (int i = 0; isGeode && i < pfGetNumGSets(geode); ++i)
    {
        void *list = nullptr;
        pfGetGSetAttrLists(pfGetGSet(geode, i), PFGS_COORD3, &list, nullptr);
        for (int k = 0; k < pfGetGSetNumPrims(pfGetGSet(geode, i)); ++k)
        {
            const auto &[x, y, z] = static_cast<Point *>(list)[k];
            add(box, {x, y, z});
        }
    }
    if (!pfIsOfType(node, pfGetSCSClassType()) || box == kNone)
    {
        return box;
    }
    pfMatrix m;
    pfGetSCSMat(reinterpret_cast<pfSCS *>(node), m);
    Box moved = kNone;
    for (int corner = 0; corner < 8; ++corner)
    {
        const double x = box[corner & 1 ? 3 : 0], y = box[corner & 2 ? 4 : 1], z = box[corner & 4 ? 5 : 2];
        add(moved,
            {x * m[0][0] + y * m[1][0] + z * m[2][0] + m[3][0], x * m[0][1] + y * m[1][1] + z * m[2][1] + m[3][1],
             x * m[0][2] + y * m[1][2] + z * m[2][2] + m[3][2]});
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

static Graph makeGraph(std::mt19937 &random)
{
    Graph g;
    for (int i = 0; i < 8; ++i)
    {
        void *const made[] = {pfNewDCS(arena), pfNewGroup(arena), pfNewSwitch(arena), pfNewLOD(arena),
                              pfNewScene(arena)};
        const size_t kind = i % 2 == 0 ? 0 : random() % std::size(made);
        std::ranges::for_each(made, [&](void *each) { each == made[kind] ? 0 : pfDelete(each); });
        g.groups.push_back(static_cast<pfGroup *>(made[kind]));
        g.geodes.push_back(pfNewGeode(arena));
        g.gsets.push_back(pfNewGSet(arena));
        g.points.emplace_back(4, Point{float(i), 1, 2});
        pfGSetAttr(g.gsets.back(), PFGS_COORD3, PFGS_PER_VERTEX, g.points.back().data(), nullptr);
        pfRef(g.groups.back()), pfRef(g.geodes.back()), pfRef(g.gsets.back());
    }
    return g;
}

static void change(Graph &g, std::mt19937 &random)
{
    std::uniform_real_distribution<float> place(-1e5f, 1e5f), angle(-180, 180);
    const size_t i = random() % 8, k = random() % 8;
    pfMatrix matrix;
    switch (random() % 9)
    {
    case 0:
        pfMakeEulerMat(matrix, angle(random), angle(random), angle(random));
        pfDCSMat(reinterpret_cast<pfDCS *>(g.groups[i / 2 * 2]), matrix);
        break;
    case 1:
        pfDCSTrans(reinterpret_cast<pfDCS *>(g.groups[i / 2 * 2]), place(random), place(random), place(random));
        break;
    case 2:
        i < k ? pfAddChild(g.groups[i], asNode(g.groups[k])) : pfAddGSet(g.geodes[i], g.gsets[k]);
        break;
    case 3:
        pfAddChild(g.groups[i], asNode(g.geodes[k]));
        break;
    case 4:
        pfReplaceChild(g.groups[i], asNode(g.geodes[k]), asNode(g.geodes[i]));
        break;
    case 5:
        pfRemoveGSet(g.geodes[i], g.gsets[k]), pfRemoveChild(g.groups[i], asNode(g.geodes[k]));
        break;
    case 6:
        pfRemoveChild(g.groups[i], asNode(g.groups[k]));
        break;
    case 7:
        pfGSetNumPrims(g.gsets[i], static_cast<int>(k % 5));
        break;
    default:
        g.points[i][k % 4] = {place(random), place(random), place(random)}; // in place
        k % 2 ? pfGSetBBox(g.gsets[i], nullptr, PFBOUND_STATIC)
              : pfGSetAttr(g.gsets[i], PFGS_COORD3, PFGS_PER_VERTEX, g.points[i].data(), nullptr);
    }
}

TEST(PfNodeBox, FollowsEveryChange)
{
    std::mt19937 random(3);
    pfArenaInfo before, after;
    pfGetArenaInfo(&before);
    for (int round = 0; round < 20; ++round)
    {
        Graph g = makeGraph(random);
        for (int i = 0; i < 300 && !HasFailure(); ++i)
        {
            SCOPED_TRACE(i);
            change(g, random);
            const size_t n = random() % 8; // the others are still to be computed, or kept
            checkBox(random() % 4 ? asNode(g.groups[n]) : asNode(g.geodes[n]));
        }
        for (size_t i = 0; i < 8; ++i)
        {
            pfUnref(g.groups[i]), pfUnref(g.geodes[i]), pfUnref(g.gsets[i]);
        }
        for (size_t i = 0; i < 8; ++i) // some went with others, which is reported
        {
            capturedStderr([&] { pfDelete(g.groups[i]), pfDelete(g.geodes[i]), pfDelete(g.gsets[i]); });
        }
    }
    pfGetArenaInfo(&after);
    EXPECT_EQ(after.blocksInUse, before.blocksInUse);
}

static pfGeode *geodeWith(std::vector<Point> &points)
{
    pfGeode *geode = pfNewGeode(arena);
    pfGeoSet *gset = pfNewGSet(arena);
    pfGSetAttr(gset, PFGS_COORD3, PFGS_PER_VERTEX, points.data(), nullptr);
    pfGSetNumPrims(gset, static_cast<int>(points.size()));
    EXPECT_EQ(pfAddGSet(geode, gset), 1);
    return geode;
}

TEST(PfNodeBox, IsTightWithoutMatricesAndInfiniteRatherThanWrong)
{
    constexpr float kInf = INFINITY;
    std::vector<Point> points = {{NAN, 1, 2}, {3, NAN, -5}, {4, 4, NAN}};
    pfDCS *dcs = pfNewDCS(arena);
    pfGroup *group = pfNewGroup(arena);
    pfBox box = {{7, 7, 7}, {7, 7, 7}};
    EXPECT_EQ(pfGetNodeBBox(asNode(dcs), &box) + pfGetNodeBBox(asNode(group), nullptr), 0);
    pfAddChild(group, asNode(dcs)), pfAddChild(reinterpret_cast<pfGroup *>(dcs), asNode(geodeWith(points)));
    pfNode *geode = pfGetChild(reinterpret_cast<pfGroup *>(dcs), 0);
    using Sides = std::array<float, 6>;
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
        for (int k = 0; k < (i < 65 ? 2 : 1); ++k)
        {
            ASSERT_EQ(pfAddChild(levels[i - 1], asNode(levels[i])), 1);
        }
    }
    pfDCS *dcs = pfNewDCS(arena);
    pfAddChild(reinterpret_cast<pfGroup *>(dcs), asNode(geodeWith(points))), pfAddChild(levels.back(), asNode(dcs));
    pfBox box;
    for (int i = 0; i < 4; ++i)
    {
        const pid_t process = i == 1 ? fork() : 0; // the others see what this one does
        if (i != 1 || process == 0)
        {
            const rlimit small = {1 << 20, 1 << 20};
            i == 1 ? setrlimit(RLIMIT_STACK, &small) : 0;
            pfDCSTrans(dcs, static_cast<float>(100 * i), 0, 0);
        }
        if (i == 1 && process == 0)
        {
            _exit(pfGetNodeBBox(asNode(levels[0]), &box) == 1 && box.max[0] >= 101 ? 0 : 1);
        }
        int status = 0;
        i == 1 ? waitpid(process, &status, 0) : 0;
        EXPECT_EQ(status, 0);
        EXPECT_EQ(pfGetNodeBBox(asNode(levels[i < 2 ? 0 : 30]), &box), 1);
        EXPECT_NEAR(box.min[0], 1 + 100 * i, 1e-3);
    }
    for (int round = 0; round < 50; ++round) // several threads compute the same boxes
    {
        pfDCSTrans(dcs, static_cast<float>(round), 0, 0);
        const auto ask = [&]
        {
            pfBox own;
            EXPECT_EQ(pfGetNodeBBox(asNode(levels[0]), &own), 1);
            EXPECT_NEAR(own.max[0], 1 + round, 1e-3);
        };
        std::thread other(ask);
        ask(), other.join();
    }
    EXPECT_EQ(pfDelete(levels[0]), 1);
}
