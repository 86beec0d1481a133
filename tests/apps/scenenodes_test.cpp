#include <tolvin/apps/scenenodes.h>

#include <algorithm>
#include <deque>
#include <fstream>

#include <gtest/gtest.h>

#include "support/capture.h"
#include "support/fullarena.h"
#include "support/temporaryfolder.h"

using namespace tolvin;

namespace
{

// Heights of what is below a place, the highest first.
std::vector<float> heightsAt(pfNode *node, float x, float y)
{
    pfSegSet set = {};
    set.mode = PFTRAV_IS_PRIM;
    set.segs[0] = {{x, y, 1000.0f}, {0.0f, 0.0f, -1.0f}, 2000.0f};
    set.activeMask = 1;
    set.isectMask = ~0U;
    pfHit **hits[PFIS_MAX_SEGS] = {};
    std::vector<float> heights;
    pfNodeIsectSegs(node, &set, hits);
    for (pfHit **hit = hits[0]; *hit != nullptr; ++hit)
    {
        float distance = 0.0f;
        pfQueryHit(*hit, PFQHIT_DISTANCE, &distance);
        heights.push_back(1000.0f - distance);
    }
    return heights;
}

pfNode *childOf(pfNode *node, std::initializer_list<int> path)
{
    for (const int index : path)
    {
        node = pfGetChild(reinterpret_cast<pfGroup *>(node), index);
    }
    return node;
}

std::string typesBelow(pfNode *node)
{
    std::string text = pfGetTypeName(pfGetType(node));
    const bool isGroup = pfIsOfType(node, pfGetGroupClassType()) == 1;
    const int count = isGroup ? pfGetNumChildren(reinterpret_cast<pfGroup *>(node)) : 0;
    for (int i = 0; i < count; ++i)
    {
        text += i == 0 ? "(" : " ";
        text += typesBelow(childOf(node, {i}));
    }
    return text + (count > 0 ? ")" : "");
}

// A model of 13 vertices: squares of 10 m at heights 0 (0 to 3), 1 (4 to 7) and 2 (8 to 11), then a far one.
class SceneNodesTest : public testing::Test
{
protected:
    SceneNodesTest()
    {
        vudbModelInit(&model_, "model", "model.obj");
        vudbModelCreateVertexArray(&model_);
        for (int i = 0; i < 12; ++i)
        {
            const float x[] = {0, 10, 10, 0}, y[] = {0, 0, 10, 10};
            vudbModelAddVertexToArray(&model_, createVertex(x[i % 4], y[i % 4], static_cast<float>(i / 4)));
        }
        vudbModelAddVertexToArray(&model_, createVertex(99, 99, 99));
        vudbObjectInit(&object_, "object");
        vudbSwitchInit(&switch_, "switch");
        vudbLODInit(&lod_, "lod");
        vudbGroupInit(&group_, "faces");
        vudbEntityDCSInit(&entity_, "entity", &model_.group.node);
        vudbGroupInit(&top_, "top");
        for (vudbGroup *const child : {&object_, &switch_, &lod_.group})
        {
            vudbGroupAddChild(&model_.group, &child->node);
        }
    }

    ~SceneNodesTest() override
    {
        for (vudbNode *const node : {&model_.group.node, &group_.node, &entity_.group.node})
        {
            vudbGroupInsertChild(&top_, node);
        }
        vudbGroupFreeHierarchy(&top_.node, nullptr);
    }

    void addFace(vudbGroup &parent, const std::vector<int> &corners, int texture = -1, int mode = 1)
    {
        vudbFace &face = faces_.emplace_back();
        vudbFaceInit(&face, "face");
        vudbFaceCreateVertexIndexList(&face);
        std::ranges::for_each(corners, [&](int corner) { vudbFaceAddVertexIndexToList(&face, corner); });
        vudbFaceSetTextureIndex(&face, texture);
        vudbFaceSetDrawingMode(&face, mode);
        vudbGroupAddChild(&parent, &face.group.node);
    }

    NothingStays nothingStays_;
    vudbModel model_;
    vudbObject object_;
    vudbSwitch switch_;
    vudbLOD lod_;
    vudbGroup group_;
    vudbEntityDCS entity_;
    vudbGroup top_;
    std::deque<vudbFace> faces_;
};

} // namespace

TEST_F(SceneNodesTest, KindsPlacesAndSharing)
{
    addFace(object_, {0, 1, 2, 3});
    addFace(group_, {4, 5, 6, 7});
    vudbGroupAddChild(&switch_, &group_.node);
    vudbGroupAddChild(&lod_.group, &object_.node); // a second time
    addFace(lod_.group, {8, 9, 10, 11});
    lod_.outDistance = 50.0f;
    lod_.inDistance = 80.0f;
    vuMakeZRotationMatrix(entity_.orientationMat, 90.0f);
    vuMakeTranslationMatrix(entity_.positionMat, 100.0f, 0.0f, 7.0f);
    vudbGroupAddChild(&top_, &entity_.group.node);
    vudbGroupAddChild(&top_, &model_.group.node);
    const SceneNodes nodes(top_.node);
    const std::string model =
        "pfGroup(pfDCS(pfGeode) pfSwitch(pfGeode) pfLOD(pfGroup pfGroup(pfGeode pfDCS(pfGeode))))";
    EXPECT_EQ(typesBelow(nodes.node()), "pfGroup(pfDCS(" + model + ") " + model + ")");
    EXPECT_EQ(nodes.triangles(), 6u);
    EXPECT_STREQ(pfGetNodeName(childOf(nodes.node(), {1, 1})), "switch");
    EXPECT_EQ(childOf(nodes.node(), {1, 0}), childOf(nodes.node(), {1, 2, 1, 1}));

    const auto *const lod = reinterpret_cast<pfLOD *>(childOf(nodes.node(), {1, 2}));
    for (const auto &[eye, child] : {std::pair{51.5f, 1}, {80.5f, 1}, {49.5f, 0}, {82.0f, -1}})
    {
        const pfVec3 from = {5.0f, 5.0f, eye};
        EXPECT_EQ(pfLODChildAt(lod, from), child) << eye; // from the middle, 1 m up
    }
    // What is seen from afar only is not hit. The entity stands 100 m east, turned by 90 degrees: x becomes y.
    EXPECT_EQ(heightsAt(nodes.node(), 4.0f, 3.0f), (std::vector{1.0f, 0.0f}));
    EXPECT_EQ(heightsAt(nodes.node(), 96.0f, 3.0f), (std::vector{8.0f, 7.0f}));
    EXPECT_TRUE(heightsAt(nodes.node(), 104.0f, 3.0f).empty());
}

TEST_F(SceneNodesTest, PrimitivesOfFaces)
{
    addFace(object_, {0, 3, 2, 1, 0}); // clockwise from above
    addFace(object_, {0, 1, 5, 4});
    addFace(object_, {4, 5, 6}, 3);
    addFace(object_, {8, 9, 10, 11}, -1, 2);
    addFace(object_, {12, 12}, -1, 0);
    addFace(object_, {7, 6}); // no polygon
    const SceneNodes nodes(model_.group.node);
    const auto *const geode = reinterpret_cast<pfGeode *>(childOf(nodes.node(), {0, 0}));
    ASSERT_EQ(pfGetNumGSets(geode), 4);
    EXPECT_EQ(nodes.triangles(), 3u + 2 + 1);
    const int expected[][3] = {{PFGS_POINTS, 2, PFGS_OFF},
                               {PFGS_LINES, 3, PFGS_OFF},
                               {PFGS_TRIS, 5, PFGS_PER_PRIM},
                               {PFGS_TRIS, 1, PFGS_PER_PRIM}};
    for (int i = 0; i < 4; ++i)
    {
        pfGeoSet *const gset = pfGetGSet(geode, i);
        EXPECT_TRUE(pfGetGSetPrimType(gset) == expected[i][0] && pfGetGSetNumPrims(gset) == expected[i][1] &&
                    pfGetGSetAttrBind(gset, PFGS_NORMAL3) == expected[i][2])
            << i;
    }
    void *normals = nullptr;
    pfGetGSetAttrLists(pfGetGSet(geode, 2), PFGS_NORMAL3, &normals, nullptr);
    const auto *const normal = static_cast<const pfVec3 *>(normals);
    EXPECT_EQ(normal[2][2], -1.0f);
    EXPECT_EQ(normal[3][1], -1.0f);
    EXPECT_EQ(heightsAt(nodes.node(), 6.0f, 2.0f), (std::vector{1.0f, 0.0f}));
    EXPECT_EQ(heightsAt(nodes.node(), 2.0f, 6.0f), (std::vector{0.0f}));
}

TEST_F(SceneNodesTest, ManyVerticesTakeSeveralGeoSets)
{
    std::vector<Vertex *> vertices;
    for (int i = 0; i < 66000; ++i)
    {
        const float x = static_cast<float>(20 + i / 3) + 0.4f * static_cast<float>(i % 3);
        vertices.push_back(createVertex(x, i % 3 == 1 ? 1.0f : 0.0f, 5.0f));
    }
    std::vector<int> indices(vertices.size());
    vudbModelAddVerticesToArray(&model_, vertices.data(), 66000, indices.data());
    for (std::size_t i = 0; i < indices.size(); i += 3)
    {
        addFace(object_, {indices[i], indices[i + 1], indices[i + 2]});
    }
    const SceneNodes nodes(model_.group.node);
    const auto *const geode = reinterpret_cast<const pfGeode *>(childOf(nodes.node(), {0, 0}));
    ASSERT_EQ(pfGetNumGSets(geode), 2);
    EXPECT_EQ(pfGetGSetNumPrims(pfGetGSet(geode, 0)), 21845);
    for (const float x : {20.4f, 21864.4f, 21865.4f, 22019.4f})
    {
        EXPECT_EQ(heightsAt(nodes.node(), x, 0.2f), (std::vector{5.0f})) << x;
    }
}

TEST_F(SceneNodesTest, WhatIsWrongIsToldAndLeavesNothing)
{
    addFace(top_, {0});
    EXPECT_EQ(refusalOf([&] { SceneNodes nodes(top_.node); }),
              "face has a corner with index 0: expected that of a vertex of the model");
    vudbGroupAddChild(&switch_, &entity_.group.node); // which shows the model that it is in
    EXPECT_EQ(refusalOf([&] { SceneNodes nodes(switch_.node); }), "more than 1000 nodes below one another");
    addFace(object_, {0, 1, 2, 13});
    EXPECT_EQ(refusalOf([&] { SceneNodes nodes(model_.group.node); }),
              "face has a corner with index 13: expected that of a vertex of the model");
}

TEST_F(SceneNodesTest, ModelFilesStandUpright)
{
    const TemporaryFolder folder;
    const std::string file = folder / "model.obj";
    std::ofstream(file) << "v 0 3 0\nv 1 3 0\nv 0 3 -1\nf 1 2 3\n";
    const ModelNodes model({file, UpAxis::Y, 10.0});
    EXPECT_EQ(model.triangles(), 1u);
    EXPECT_EQ(heightsAt(model.node(), 2.0f, 3.0f), (std::vector{30.0f})); // y ahead is where z was behind
    EXPECT_TRUE(heightsAt(model.node(), 2.0f, -3.0f).empty());
    const ModelNodes lying({file, UpAxis::Z, 1.0});
    EXPECT_TRUE(heightsAt(lying.node(), 0.2f, 3.0f).empty());

    // The nodes are still there when what they were put into is not.
    pfGroup *const group = pfNewGroup(pfGetSharedArena());
    pfAddChild(group, model.node());
    EXPECT_EQ(pfDelete(group), 1);
    EXPECT_EQ(pfGetNumParents(model.node()), 0);
}

TEST_F(SceneNodesTest, FullArenaLeavesNothing)
{
    addFace(object_, {0, 1, 2, 3});
    lod_.outDistance = 50.0f;
    addFace(lod_.group, {8, 9, 10, 11});
    EXPECT_GT(refusalsUntilThereIsRoom(64, [&] { SceneNodes nodes(model_.group.node); }), 15);
}
