#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <utility>

#include <tolvin/vuDB/vudb.h>

#include "vuDB/reports.h"

TEST(Model, ReportsMisuse)
{
    vudbModel model;
    vudbTexture texture;
    const auto misuse = [&]
    {
        vudbModelInit(nullptr, "m", "f"), vudbModelInit(&model, "m", nullptr), vudbModelSetFile(&model, nullptr);
        vudbModelFree(nullptr), vudbModelFreeAll(nullptr);
        EXPECT_TRUE(!vudbModelSetFile(nullptr, "f") && !vudbModelGetFile(nullptr) && !vudbModelGetFile(&model));
        EXPECT_TRUE(vudbModelCreateVertexArray(nullptr) == -1 && !vudbModelGetVertexArray(nullptr) &&
                    vudbModelAddVertexToArray(nullptr, nullptr) == -1 &&
                    vudbModelAddVerticesToArray(nullptr, nullptr, 0, nullptr) == -1 &&
                    !vudbModelGetIndexedVertex(nullptr, 0) && vudbModelCreateTextureArray(nullptr) == 0 &&
                    vudbModelGetNumberOfTextures(nullptr) == 0 && !vudbModelGetIndexedTextureNode(nullptr, 0) &&
                    !vudbModelGetTextureArray(nullptr));
        vudbModelAddTextureToArray(nullptr, nullptr), vudbModelPrintAllObjects(stdout, nullptr);

        vudbFaceInit(nullptr, "f"), vudbFaceFree(nullptr), vudbFaceFreeAll(nullptr);
        vudbFaceCreateVertexIndexList(nullptr), vudbFaceAddVertexIndexToList(nullptr, 0);
        EXPECT_TRUE(!vudbFaceGetVertexIndexList(nullptr) && vudbFaceGetVertexIndexFromList(nullptr, 0) == -1);
        vudbFaceSetTextureIndex(nullptr, 0), vudbFaceSetDrawingMode(nullptr, 0);
        EXPECT_TRUE(vudbFaceGetTextureIndex(nullptr) == -1 && vudbFaceGetDrawingMode(nullptr) == -1);
        vudbTextureInit(nullptr, "t", "f"), vudbTextureInit(&texture, "t", nullptr), vudbTextureFree(nullptr);
        EXPECT_TRUE(!texture.fileName);
    };
    std::string reports = R"(vuDB/vudbModel Error: {vudbModelInit(vudbModel *node = NULL, char *name)}
vuDB/vudbModel Warning: {No name for new model file}
vuDB/vudbModel Warning: {No name for new model file}
vuDB/vudbModel Warning: {vudbModelFree(vudbModel *node = NULL)}
vuDB/vudbModel Warning: {vudbModelFreeAll(vudbModel *node = NULL)}
vuDB/vudbModel Warning: {vudbModel* node == NULL}
vuDB/vudbModel Warning: {vudbModel* node == NULL}
)";
    reports += linesOf("CreateVertexArray GetVertexArray AddVertexToArray AddVerticesToArray GetIndexedVertex "
                       "CreateTextureArray GetNumberOfTextures GetIndexedTextureNode GetTextureArray AddTextureToArray "
                       "PrintAllObjects",
                       "vuDB/vudbModel Error: {vudbModel%(): node == NULL}");
    reports += R"(vuDB/vudbFace Error: {vudbFaceInit(): node == NULL}
vuDB/vudbFace Warning: vudbFaceFree(vudbFace *node = NULL)
vuDB/vudbFace Warning: vudbFaceFreeAll(vudbFace *node = NULL)
vuDB/vudbFace Warning: vudbCreateVertexIndexList(vudbFace *node = NULL)
vuDB/vudbFace Warning: vudbFaceAddVertexIndexToList():vudbFace *node == NULL
)";
    reports += linesOf("GetVertexIndexList GetVertexIndexFromList SetTextureIndex SetDrawingMode GetTextureIndex "
                       "GetDrawingMode",
                       "vuDB/vudbFace Warning: vudbFace%(): vudbFace *node == NULL");
    reports += R"(vuDB/vudbTexture Error: {vudbTextureInit(vudbTexture *node == NULL)}
vuDB/vudbTexture Warning: {vudbTextureInit() (t): filename == NULL}
vuDB/vudbTexture Error: {vudbTextureFree(vudbTexture *node == NULL)}
)";
    EXPECT_EQ(reportsOf(misuse), reports);
    vudbModelFree(&model), vudbTextureFree(&texture);
}

TEST(Model, FileNames)
{
    vudbModel model;
    vudbModelInit(&model, "m", "dir/file");
    const auto becomesFile = [&](const char *file)
    { return vudbModelSetFile(&model, file) == model.vudbm_file && strcmp(vudbModelGetFile(&model), "file") == 0; };
    const auto change = [&]
    {
        EXPECT_TRUE(becomesFile(model.vudbm_file + 4) && !vudbModelSetFile(&model, nullptr));
        EXPECT_TRUE(!model.vudbm_file && becomesFile("file"));
    };
    EXPECT_EQ(reportsOf(change), R"(vuDB/vudbModel Warning: Changed vudbModel's filename from dir/file to file.
vuDB/vudbModel Warning: You have to take care of the new model yourself, i.e. reload the datas!
vuDB/vudbModel Warning: Changed vudbModel's filename from file to (null).
vuDB/vudbModel Warning: You have to take care of the new model yourself, i.e. reload the datas!
vuDB/vudbModel Warning: {No name for new model file}
)");
    vudbModelFree(&model);
    EXPECT_TRUE(!model.vudbm_file && model.group.node.type == VUDB_UNKNOWN);
}

TEST(Model, FacesShareVertices)
{
    // Two triangles with a common edge, twice.
    const float corners[6][3] = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 0, 0}, {1, 1, 0}, {0, 1, 0}};
    vudbModel model;
    vudbFace face;
    vudbModelInit(&model, "m", "f"), vudbFaceInit(&face, "f"), vudbFaceCreateVertexIndexList(&face);
    Vertex *vertices[12];
    for (int i = 0; i < 12; ++i)
    {
        vertices[i] = createVertex(corners[i % 6][0], corners[i % 6][1], corners[i % 6][2]);
    }
    int indices[6];
    VertexArray *array = nullptr;
    const auto add = [&]
    {
        for (int i = 0; i < 6; ++i)
        {
            vudbFaceAddVertexIndexToList(&face, vudbModelAddVertexToArray(&model, vertices[i]));
        }
        array = std::exchange(model.vudbm_vertexArray, nullptr);
        EXPECT_TRUE(vudbModelAddVerticesToArray(&model, nullptr, 0, nullptr) == 0 && !vudbModelGetVertexArray(&model));
        EXPECT_EQ(vudbModelAddVerticesToArray(&model, vertices + 6, 6, indices), 4);
    };
    EXPECT_EQ(reportsOf(add), linesOf("AddVertexToArray AddVerticesToArray",
                                      "vuDB/vudbModel Warning: {vudbModel%(): vertex array == NULL! Creating ...!}"));
    for (int i = 0; i < 6; ++i)
    {
        EXPECT_TRUE(vudbFaceGetVertexIndexFromList(&face, i) == indices[i] && indices[i] == "012023"[i] - '0');
    }
    EXPECT_TRUE(array->numVertices == 4 && vudbModelGetIndexedVertex(&model, 3) == vertices[11]);
    free(vertices[3]), free(vertices[4]), free(vertices[9]), free(vertices[10]);
    // A new list, and a new array, leave the old ones to the caller.
    vuIndexList *list = vudbFaceGetVertexIndexList(&face);
    vudbFaceCreateVertexIndexList(&face);
    freeVertexArray(array), vuFreeIndexList(list), vudbFaceFreeAll(&face);
    array = model.vudbm_vertexArray;
    EXPECT_TRUE(vudbModelCreateVertexArray(&model) == 1 && model.vudbm_vertexArray->numVertices == 0);
    freeVertexArray(array), vudbModelFreeAll(&model);
}

TEST(Model, Textures)
{
    vudbModel model;
    vudbModelInit(&model, "m", "f");
    vudbTexture textures[21];
    for (int i = 0; i < 21; ++i)
    {
        vudbTextureInit(&textures[i], "t", "file");
        vudbModelAddTextureToArray(&model, &textures[i]);
        EXPECT_EQ(model.vudbm_maxTextures, i < 20 ? 20 : 40);
    }
    const auto texture = [&](int index) { return vudbModelGetIndexedTextureNode(&model, index); };
    EXPECT_TRUE(texture(0) == &textures[0] && texture(20) == &textures[20] &&
                vudbModelGetNumberOfTextures(&model) == 21);
    EXPECT_EQ(reportsOf([&] { EXPECT_TRUE(!texture(21) && !texture(-1) && !texture(22)); }),
              "vuDB/vudbModel Error: {vudbModelGetIndexedTextureNode(): index > node->vudbm_numTextures}\n");
    vudbTexture **array = vudbModelGetTextureArray(&model);
    EXPECT_EQ(vudbModelCreateTextureArray(&model), 1);
    EXPECT_TRUE(model.vudbm_numTextures == 0 && model.vudbm_maxTextures == 20 && !model.vudbm_textures[19]);
    free(model.vudbm_textures);
    model = {model.group, model.vudbm_file, nullptr, array, 21, 40};
    vudbModelFree(&model);
    EXPECT_TRUE(model.vudbm_textures == array && strcmp(textures[20].fileName, "file") == 0);
    vudbModelFreeAll(&model);
    EXPECT_TRUE(!model.vudbm_textures && model.vudbm_numTextures == 0 && !textures[20].fileName);
}

TEST(Model, PlainReleaseLeavesVerticesAndIndices)
{
    vudbModel model;
    vudbModelInit(&model, "m", "f");
    vudbModelCreateVertexArray(&model), vudbModelAddVertexToArray(&model, createVertex(1, 2, 3));
    Vertex **slots = model.vudbm_vertexArray->vertices;
    vudbModelFree(&model);
    EXPECT_TRUE(slots[0]->y == 2 && !model.vudbm_vertexArray);
    free(slots[0]), free(slots);

    vudbFace face;
    vudbFaceInit(&face, "f");
    EXPECT_TRUE(!face.vertexIndexList && vudbFaceGetTextureIndex(&face) == -1);
    vudbFaceSetTextureIndex(&face, -7);
    EXPECT_EQ(vudbFaceGetTextureIndex(&face), -7);
    for (const auto &[mode, kept] : {std::pair(-2, 1), {0, 0}, {5, 5}, {-1, 5}})
    {
        vudbFaceSetDrawingMode(&face, mode);
        EXPECT_EQ(vudbFaceGetDrawingMode(&face), kept);
    }
    vudbFaceCreateVertexIndexList(&face), vudbFaceAddVertexIndexToList(&face, 9);
    int *entries = face.vertexIndexList->indices;
    vudbFaceFree(&face);
    EXPECT_TRUE(entries[0] == 9 && !face.vertexIndexList);
    free(entries);
}
