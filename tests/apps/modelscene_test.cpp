#include "support/capture.h"
#include "support/temporaryfolder.h"

#include <tolvin/apps/modelcheck.h>
#include <tolvin/apps/modelscene.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <fstream>

using namespace tolvin;

namespace
{

const char *const kHouse = "mtllib house.mtl\no walls\n"
                           "v 0 0 0\nv 4 0 0\nv 4 3 0\nv 0 3 0\nv 0 0 2\nv 4 0 2\nv 4 3 2\nv 0 3 2\n"
                           "usemtl brick\nf 1 2 6 5\nf 2 3 7 6\nf 3 4 8 7\nf 4 1 5 8\nusemtl plain\nf 4 3 2 1\n"
                           "o roof_LOD1\nv 2 1.5 3\nusemtl brick\nf 5 6 9\nf 6 7 9\nf 7 8 9\nf 8 5 9\n";
const char *const kHouseMaterials = "newmtl brick\nmap_Kd brick.rgb\nnewmtl plain\nKd 1 1 1\n";

// Two triangles, the second of which has the place of vertex 0 again as vertex 3.
const char *const kPly =
    "ply\nformat ascii 1.0\nelement vertex 4\nproperty float x\nproperty float y\nproperty float z\n"
    "element face 2\nproperty list uchar int vertex_indices\nend_header\n"
    "0 0 0\n1 0 0\n0 1 0\n0 0 0\n3 0 1 2\n3 3 1 ";

// The triangle (0,0,0) (1,0,0) (0,1,0) twice: moved by 10 along x, and of double size.
const char *const kGltf =
    R"({"asset":{"version":"2.0"},"scene":0,"scenes":[{"nodes":[0,1]}],
"nodes":[{"name":"left","mesh":0,"translation":[10,0,0]},{"name":"pair","children":[2]},
{"name":"right","mesh":0,"scale":[2,2,2]}],
"meshes":[{"name":"tri","primitives":[{"attributes":{"POSITION":0},"indices":1}]}],
"buffers":[{"byteLength":42,"uri":"data:application/octet-stream;base64,AAAAAAAAAAAAAAAAAACAPwAAAAAAAAAAAAAAAAAAgD8AAAAAAAABAAIA"}],
"bufferViews":[{"buffer":0,"byteOffset":0,"byteLength":36},{"buffer":0,"byteOffset":36,"byteLength":6}],
"accessors":[{"bufferView":0,"componentType":5126,"count":3,"type":"VEC3","min":[0,0,0],"max":[1,1,0]},
{"bufferView":1,"componentType":5123,"count":3,"type":"SCALAR"}]})";

class Models : public testing::Test
{
protected:
    std::string write(const std::string &name, const std::string &text) const
    {
        std::ofstream(folder_ / name) << text;
        return folder_ / name;
    }

    std::string hierarchy()
    {
        return capturedStderr([this] { vudbGroupPrintHierarchy(stderr, &scene_.scene()->node); });
    }

    // The node at that place of a model; its faces are in groups of objects.
    template<typename Record = vudbGroup>
    Record *nodeAt(int model, std::initializer_list<int> path)
    {
        vudbNode *node = &scene_.models().at(static_cast<std::size_t>(model))->group.node;
        for (const int index : path)
        {
            node = vudbGroupGetIndexedChild(reinterpret_cast<vudbGroup *>(node), index);
        }
        return reinterpret_cast<Record *>(node);
    }

    std::vector<int> cornersAt(int model, std::initializer_list<int> path)
    {
        const auto *const list = vudbFaceGetVertexIndexList(nodeAt<vudbFace>(model, path));
        return {list->indices, list->indices + list->numIndices};
    }

    TemporaryFolder folder_;
    ModelScene scene_;
};

} // namespace

TEST_F(Models, PartsBecomeObjectsOverMergedVertices)
{
    write("house.mtl", kHouseMaterials);
    const ModelStatistics s = scene_.import(write("house.obj", kHouse));
    EXPECT_TRUE(s.objects == 2 && s.lods == 1 && s.textures == 1 && s.faces == 9 && s.corners == 32);
    EXPECT_TRUE(s.fileVertices == 32 && s.vertices == 9);
    vudbModel *const model = scene_.models().at(0);
    EXPECT_EQ(vudbModelGetFile(model), (folder_ / "house.obj").string());
    EXPECT_STREQ(vudbModelGetIndexedTextureNode(model, 0)->fileName, "brick.rgb");
    EXPECT_TRUE(hierarchy().starts_with(
        "scene (type:3 / 1 children): (Parent: none)\n*** Children:\nhouse (type:4 / 2 children)\n"
        "Bounding Box: 0.000000 4.000000 0.000000 3.000000 0.000000 3.000000\n*** Children:\nwalls (type:12 / 2 "
        "childr"))
        << hierarchy();

    // The floor is in the second group of the walls, the roof's first face under LOD, object and group.
    EXPECT_EQ(vudbFaceGetTextureIndex(nodeAt<vudbFace>(0, {0, 0, 3})), 0);
    EXPECT_EQ(vudbFaceGetTextureIndex(nodeAt<vudbFace>(0, {0, 1, 0})), -1);
    const std::vector<int> ridge = cornersAt(0, {1, 0, 0, 0});
    ASSERT_EQ(ridge.size(), 3u);
    const Vertex *const top = vudbModelGetIndexedVertex(model, ridge[2]);
    EXPECT_TRUE(top->x == 2.0f && top->y == 1.5f && top->z == 3.0f);

    // Levels meet, though the second is smaller.
    scene_.import(write("levels.obj", "v 0 0 0\nv 4 0 0\nv 0 3 0\nv 1 1 0\no a_LOD0\nf 1 2 3\no a-lod1\nf 1 2 4\n"));
    for (const auto &[number, level, out, in] : {std::tuple{0, 1, 10.0f * std::sqrt(26.0f), 20.0f * std::sqrt(26.0f)},
                                                 {1, 0, 0.0f, 50.0f},
                                                 {1, 1, 50.0f, 100.0f}})
    {
        const auto *const lod = nodeAt<vudbLOD>(number, {level});
        EXPECT_EQ(lod->group.node.type, VUDB_LOD);
        EXPECT_FLOAT_EQ(lod->outDistance, out);
        EXPECT_FLOAT_EQ(lod->inDistance, in);
    }
}

TEST_F(Models, OtherFormatsAndPlacesOfNodes)
{
    const ModelStatistics ply = scene_.import(write("two.ply", std::string(kPly) + "2\n"));
    EXPECT_TRUE(ply.fileVertices == 4 && ply.vertices == 3 && ply.faces == 2 && ply.objects == 1);
    EXPECT_EQ(cornersAt(0, {0, 0, 0}), cornersAt(0, {0, 0, 1}));
    const ModelStatistics gltf = scene_.import(write("two.gltf", kGltf));
    EXPECT_TRUE(gltf.objects == 2 && gltf.faces == 2 && gltf.fileVertices == 6 && gltf.vertices == 6);
    const vudbBoundingBox *const box = nodeAt<vudbNode>(1, {})->bbox;
    EXPECT_TRUE(box->xmin == 0.0f && box->xmax == 11.0f && box->ymax == 2.0f && box->zmin == 0.0f && box->zmax == 0.0f);
    EXPECT_EQ(vudbGroupGetNumberOfChildren(scene_.scene()), 2);
}

TEST_F(Models, BrokenFilesAreToldAndLeaveTheSceneAlone)
{
    const std::string range = write("range.obj", "v 0 0 0\nf 1 2 9\n"), none = folder_ / "none.obj";
    EXPECT_EQ(refusalOf([&] { scene_.import(range); }), range + ": OBJ: vertex index out of range");
    EXPECT_EQ(refusalOf([&] { scene_.import(none); }), none + ": Unable to open file \"" + none + "\".");
    EXPECT_EQ(hierarchy(), "scene (type:3 / 0 children): (Parent: none)\n");
    EXPECT_TRUE(scene_.models().empty());
}

TEST_F(Models, ManyFacesHangInGroups)
{
    std::string text;
    for (int i = 0; i < 2500; ++i)
    {
        const std::string x = std::to_string(i);
        text += "v " + x + " 0 0\nv " + x + " 1 0\nv " + x + " 0 1\nf -3 -2 -1\n";
    }
    EXPECT_EQ(scene_.import(write("many.obj", text)).faces, 2500u);
    EXPECT_STREQ(nodeAt<vudbNode>(0, {0, 2})->name, "faces 2000 to 2499");
    EXPECT_EQ(nodeAt(0, {0, 1})->numChildren, 1000);
    EXPECT_EQ(vudbNodeGetBoundingBoxXmin(nodeAt<vudbNode>(0, {0, 1})), 1000.0f);
}

TEST_F(Models, FaultsOfAllKindsAreFound)
{
    write("house.mtl", kHouseMaterials);
    scene_.import(write("house.obj", kHouse));
    scene_.import(write("flat.obj", "v 0 0 0\nv 1 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 4\nf 1 2 3\n"));
    const auto faults = [](const vudbModel *model)
    {
        std::string text;
        for (const auto &[kind, count, examples] : faultsOf(*model))
        {
            text += kind + " " + std::to_string(count) + ": " + examples[0] + "\n";
        }
        return text;
    };
    EXPECT_EQ(faults(scene_.models()[0]), "image of a texture missing 1: brick.rgb\n");
    EXPECT_EQ(faults(scene_.models()[1]),
              "flat box 1: defaultobject: along z\nface with a corner twice 1: face 1 of defaultobject\n");
    EXPECT_EQ(scene_.import(write("range.ply", std::string(kPly) + "7\n")).strayCorners, 1u);
    const std::string stray = faults(scene_.models()[2]);
    EXPECT_NE(stray.find("vertex index out of range 1: face 1 of : 10\n"), std::string::npos) << stray;
    scene_.import(write("nan.obj", "v nan 0 0\nv 1 0 0\nv 1 1 0\nv 0 0 1\nf 1 2 3\nf 2 3 4\n"));
    EXPECT_EQ(faults(scene_.models()[3]), "vertex that is not finite 1: 0\n");
    EXPECT_EQ(vudbNodeGetBoundingBoxXmin(nodeAt<vudbNode>(3, {})), 0.0f);

    write("brick.rgb", "any");
    vudbModel *const house = scene_.models()[0];
    auto *const face = nodeAt<vudbFace>(0, {0, 0, 0});
    vudbFaceAddVertexIndexToList(face, 9);
    vudbFaceAddVertexIndexToList(face, -5);
    vudbFaceSetTextureIndex(face, 1);
    vuIndexList *const other = vudbFaceGetVertexIndexList(nodeAt<vudbFace>(0, {0, 0, 1}));
    other->numIndices = 2;
    const int deleted = other->indices[0];
    std::free(vudbModelGetIndexedVertex(house, deleted));
    deleteVertexFromArray(vudbModelGetVertexArray(house), deleted);
    const std::string text = faults(house);
    for (const char *line :
         {"vertex index out of range 2: face 0 of walls: 9\n", "texture index out of range 1: face 0 of walls: 1\n",
          "face without corners enough 1: face 1 of walls: 2\n", "vertex deleted "})
    {
        EXPECT_NE(text.find(line), std::string::npos) << line << text;
    }
    EXPECT_EQ(text.find("image"), std::string::npos);
}
