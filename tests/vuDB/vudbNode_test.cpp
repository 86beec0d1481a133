#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

#include <tolvin/performer/pf.h>
#include <tolvin/vuDB/vudbNode.h>

#include "vuDB/reports.h"

// xmin, xmax, ymin, ymax, zmin, zmax
using Box = std::array<float, 6>;

struct Node : vudbNode
{
    Node()
    {
        memset(static_cast<vudbNode *>(this), 0x5A, sizeof(vudbNode));
        vudbNodeInit(this, "name");
    }
    Node(const Node &) = delete;
    ~Node()
    {
        vudbNodeFree(this);
    }
};

static Box boxOf(const vudbNode *node)
{
    return {vudbNodeGetBoundingBoxXmin(node), vudbNodeGetBoundingBoxXmax(node), vudbNodeGetBoundingBoxYmin(node),
            vudbNodeGetBoundingBoxYmax(node), vudbNodeGetBoundingBoxZmin(node), vudbNodeGetBoundingBoxZmax(node)};
}

TEST(Node, ReportsMisuse)
{
    Node node;
    vudbNode nameless;
    const auto misuse = [&]
    {
        vudbNodeInit(nullptr, "n"), vudbNodeInit(&nameless, nullptr), vudbNodeFree(nullptr);
        EXPECT_STREQ(vudbNodeSetName(&node, nullptr), "name");
        EXPECT_TRUE(!nameless.name && vudbNodeSetType(nullptr, 3) == 0 && !vudbNodeSetName(nullptr, "x"));
        vudbNodeCalculateBoundingBox(nullptr, nullptr), vudbNodeRecalcBoundingBox(nullptr, nullptr);
        vudbNodeSetBoundingBox(nullptr, 1, 2, 3, 4, 5, 6);
        EXPECT_TRUE(vudbNodeGetBoundingBox(nullptr) == nullptr && boxOf(nullptr) == Box{});
        EXPECT_TRUE(!vudbNodeGetParentList(nullptr) && !vudbNodeGetIndexedParent(nullptr, 0));
        EXPECT_TRUE(vudbNodeAddParent(nullptr, nullptr) == -1 && vudbNodeGetNumberOfParents(nullptr) == -1);
    };
    std::string reports = R"(vuDB/vudbNode Error: {vudbNodeInit(vudbNode *node = NULL, char *name)}
vuDB/vudbNode Info: no name for node
vuDB/vudbNode Warning: vudbNodeFree(vudbNode *node = NULL)
vuDB/vudbNode Info: vudbNodeSetName():No new name for node given! Name remains "name"
)";
    reports += linesOf("SetType SetName CalculateBoundingBox RecalcBoundingBox SetBoundingBox GetBoundingBox",
                       "vuDB/vudbNode Error: {vudbNode%(): vudbNode *node == NULL}");
    reports += linesOf("Xmin Xmax Ymin Ymax Zmin Zmax",
                       "vuDB/vudbNode Error: {vudbNodeGetBoundingBox%(): vudbNode *node == NULL!Returning 0.0}");
    reports += R"(vuDB/vudbNode Warning: vudbNodeGetParentList(vudbNode *node == NULL)
vuDB/vudbNode Warning: vudbNodeAddParent(vudbNode *node = 0x(nil), vudbNode *parent = 0x(nil))
vuDB/vudbNode Warning: {(vudbNode *node = 0x(nil))}
)";
    EXPECT_EQ(reportsOf(misuse), reports);
}

TEST(Node, TypesAndNames)
{
    Node node;
    EXPECT_TRUE(node.type == VUDB_NODE && !node.bbox && !node.parents && node.numParents == 0);
    EXPECT_STREQ(vudbNodeSetName(&node, node.name), "name");
    EXPECT_STREQ(vudbNodeSetName(&node, node.name + 2), "me");
    EXPECT_STREQ(vudbNodeGetName(&node), "me");
    EXPECT_TRUE(vudbNodeSetType(&node, 77) == 77 && vudbNodeGetType(&node) == 77);
    vudbNodeFree(&node);
    EXPECT_TRUE(node.type == VUDB_UNKNOWN && !node.name && !node.bbox && !node.parents && node.numParents == 0);
    EXPECT_STREQ(vudbNodeTypeNames[10], "VUDB_LOD");
    EXPECT_STREQ(vudbNodeTypeNames[22], "VUDB_END");
}

TEST(Node, Parents)
{
    Node node, parents[51];
    const auto parent = [&](int index) { return vudbNodeGetIndexedParent(&node, index); };
    EXPECT_EQ(parent(7), nullptr);
    for (int i = 0; i < 51; ++i)
    {
        EXPECT_TRUE(vudbNodeAddParent(&node, &parents[i]) == i + 1 && node.maxParents == (i < 50 ? 50 : 100));
    }
    EXPECT_TRUE(parent(0) == &parents[0] && parent(49) == &parents[49] && parent(50) == &parents[50]);
    EXPECT_TRUE(vudbNodeGetParentList(&node) == node.parents && vudbNodeGetNumberOfParents(&node) == 51);
    EXPECT_EQ(reportsOf([&] { EXPECT_TRUE(!parent(51) && !parent(-1) && !parent(52)); }),
              "vuDB/vudbNode Warning: No parent at index: 52 - number of parents in list: 51\n");
}

TEST(Box, OfVertices)
{
    const std::pair<std::vector<Vertex>, Box> cases[] = {{{{2, 1, 5}, {2, 3, 5}}, {2, 2.1F, 1, 3, 5, 5}},
                                                         // The sum in single precision would be -0.0249999985.
                                                         {{{-0.125F, 7, 1}}, {-0.125F, -0.025F, 7, 7.1F, 1, 1}},
                                                         {{{1, 2, 3}, {-4, 5, 0}, {0, -6, 9}}, {-4, 1, -6, 5, 0, 9}},
                                                         {{{1, 1, 1}, {NAN, 3, NAN}, {2, NAN, 0}}, {1, 2, 1, 3, 0, 1}}};
    for (auto [vertices, box] : cases)
    {
        std::vector<Vertex *> slots = {nullptr}; // a hole
        std::ranges::transform(vertices, std::back_inserter(slots), [](Vertex &vertex) { return &vertex; });
        const int count = static_cast<int>(slots.size());
        const VertexArray array = {count, count, slots.data()}, hole = {count, 1, slots.data()};
        Node node;
        vudbNodeCalculateBoundingBox(&node, nullptr), vudbNodeCalculateBoundingBox(&node, &hole);
        EXPECT_EQ(node.bbox, nullptr);
        vudbNodeCalculateBoundingBox(&node, &array);
        EXPECT_TRUE(boxOf(&node) == box && node.bbox->initialized == 0) << testing::PrintToString(boxOf(&node));
    }
}

TEST(Box, AccumulatesUpTheFirstParents)
{
    Node leaf, parent, top, other;
    vudbNodeAddParent(&leaf, &parent), vudbNodeAddParent(&leaf, &other), vudbNodeAddParent(&parent, &top);
    vudbNodeSetBoundingBox(&leaf, -9, 9, -9, 9, -9, 9), vudbNodeSetBoundingBox(&top, -9, 9, -9, 9, -9, 9);
    EXPECT_EQ(top.bbox->initialized, 0);
    const std::pair<Box, Box> steps[] = {{{0, 1, 0, 1, 0, 1}, {0, 1, 0, 1, 0, 1}},
                                         {{-1, 0.5F, 0, 2, 0, 1}, {-1, 1, 0, 2, 0, 1}},
                                         {{NAN, NAN, -3, 1, 0, NAN}, {-1, 1, -3, 2, 0, 1}}};
    for (const auto &[box, sum] : steps)
    {
        vudbNodeRecalcBoundingBox(&leaf, box.data());
        EXPECT_TRUE(boxOf(&leaf) == sum && boxOf(&parent) == sum && boxOf(&top) == sum) << sum[0];
    }
    EXPECT_TRUE(top.bbox->initialized == 1 && vudbNodeGetBoundingBox(&other) == nullptr);
    // What rises is the node's box, not the one that came in.
    vudbNodeSetBoundingBox(&leaf, -5, 5, 0, 0, 0, 0);
    vudbNodeRecalcBoundingBox(&leaf, steps[0].first.data());
    EXPECT_EQ(boxOf(&top), (Box{-5, 5, -3, 2, 0, 1}));
}

TEST(Box, Transforms)
{
    // A quarter turn that takes x to y and y to -x; twice the size, then moved.
    const vuMatrix turn = {{0, 1, 0, 0}, {-1, 0, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}};
    const vuMatrix place = {{2, 0, 0, 0}, {0, 2, 0, 0}, {0, 0, 2, 0}, {10, 20, 30, 1}};
    const vuMatrix last = {{0, 2, 0, 0}, {-2, 0, 0, 0}, {0, 0, 2, 0}, {6, 20, 30, 1}}; // of the corner 0, 2, 0
    vuMatrix position;
    const auto transformed = [&](bool withBox, const vuMatrix orientation, int fixedRotation)
    {
        Node node;
        withBox ? vudbNodeSetBoundingBox(&node, 0, 1, 0, 2, 0, 3) : void();
        vuCopyMatrix(position, place);
        vudbNodeTransformBoundingBox(&node, position, orientation, fixedRotation);
        return boxOf(&node);
    };
    EXPECT_EQ(transformed(false, turn, 0), (Box{10, 10, 20, 20, 30, 30}));
    EXPECT_EQ(transformed(true, turn, 0), (Box{6, 10, 20, 22, 30, 36}));
    EXPECT_EQ(memcmp(position, last, sizeof last), 0);
    // Twice the same matrix: c goes to 4 c + 3 (10, 20, 30).
    EXPECT_EQ(transformed(true, position, 0), (Box{30, 34, 60, 68, 90, 102}));
    // (x, y, z) goes to (y, x, -z), but for the rounding of the angles.
    const Box box = transformed(true, turn, 1), turned = {0, 2, 0, 1, -3, 0};
    for (size_t i = 0; i < turned.size(); ++i)
    {
        EXPECT_NEAR(box[i], turned[i], 1e-6);
    }
    EXPECT_NEAR(position[0][1], 1, 1e-6);
}

TEST(Box, OfASubtreeOfThePlatformLayer)
{
    // root - (geode, group - geode)
    pfGroup *root = pfNewGroup(nullptr), *group = pfNewGroup(nullptr);
    pfGeode *geodes[2] = {pfNewGeode(nullptr), pfNewGeode(nullptr)};
    const auto asNode = [](auto *object) { return reinterpret_cast<pfNode *>(object); };
    pfAddChild(root, asNode(geodes[0])), pfAddChild(root, asNode(group)), pfAddChild(group, asNode(geodes[1]));
    Node node;
    vudbNodeCalculateBoundingBoxFromPfNode(&node, asNode(root));
    EXPECT_EQ(node.bbox, nullptr);
    pfVec3 points[3][2] = {{{1, 2, 3}, {4, 6, 9}}, {{0, 3, 4}, {2, 4, 5}}, {{3, -1, 5}, {3, 3, 20}}};
    for (int i = 0; i < 3; ++i)
    {
        pfGeoSet *gset = pfNewGSet(nullptr);
        pfGSetNumPrims(gset, 2);
        pfGSetAttr(gset, PFGS_COORD3, PFGS_PER_VERTEX, points[i], nullptr);
        pfBox wrong = {{-50, -50, -50}, {50, 50, 50}};
        pfGSetBBox(gset, &wrong, PFBOUND_STATIC);
        pfAddGSet(geodes[i / 2], gset);
    }
    vudbNodeCalculateBoundingBoxFromPfNode(&node, asNode(root));
    EXPECT_EQ(boxOf(&node), (Box{0, 4, -1, 6, 3, 20}));
    vudbNodeCalculateBoundingBoxFromPfNode(&node, asNode(group));
    EXPECT_EQ(boxOf(&node), (Box{3, 3, -1, 3, 5, 20}));
    EXPECT_EQ(node.bbox->initialized, 0);
    pfDelete(root);
}
