// This program has the modules' sources in it, and their allocations are wrapped by the linker.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <tolvin/vuDB/vudb.h>

#include "support/failingnew.h"
#include "vuDB/reports.h"

static int succeeding = INT_MAX; // allocations, before the others fail

static bool allocates()
{
    return succeeding > 0 && succeeding-- > 0;
}

extern "C" {
void *__real_malloc(size_t);
void *__real_calloc(size_t, size_t);
char *__real_strdup(const char *);

void *__wrap_malloc(size_t bytes)
{
    return allocates() ? __real_malloc(bytes) : nullptr;
}
void *__wrap_calloc(size_t count, size_t bytes)
{
    return allocates() ? __real_calloc(count, bytes) : nullptr;
}
char *__wrap_strdup(const char *text)
{
    return allocates() ? __real_strdup(text) : nullptr;
}
}

// The table of type names is here and in the library.
extern "C" const char *__asan_default_options()
{
    return "detect_odr_violation=0";
}

static bool isGranted(size_t)
{
    return true; // it asks malloc
}

static void adopt(vudbGroup &group, auto *...children)
{
    (vudbGroupInsertChild(&group, reinterpret_cast<vudbNode *>(children)), ...);
}

// A node of every kind: scene - (group - (face, lod, switch - gun, hull, plain, null), model - texture, dcs, scs)
struct Everything
{
    vudbScene scene;
    vudbGroup group;
    vudbFace face;
    vudbLOD lod;
    vudbSwitch switchNode;
    vudbObject gun, hull;
    vudbNode plain;
    char behindPlain[sizeof(vudbGroup)]; // no group
    vudbModel model;
    vudbTexture textures[2];
    vudbEntityDCS dcs;
    vudbEntitySCS scs;

    Everything()
    {
        memset(static_cast<void *>(this), 0x5A, sizeof *this);
        vudbSceneInit(&scene, "scene"), vudbGroupInit(&group, "group"), vudbFaceInit(&face, "face");
        vudbLODInit(&lod, "lod"), vudbSwitchInit(&switchNode, "switch"), vudbObjectInit(&gun, "gun");
        vudbObjectInit(&hull, "hull"), vudbNodeInit(&plain, "plain"), vudbModelInit(&model, "model", "file");
        vudbTextureInit(&textures[0], "texture", "file"), vudbTextureInit(&textures[1], "other", "file");
        vudbNodeSetBoundingBox(&model.group.node, 0, 1, 0, 2, 0, 3);
        vudbEntityDCSInit(&dcs, "dcs", &model.group.node), vudbEntitySCSInit(&scs, "scs", nullptr);
        adopt(scene, &group, &model, &dcs, &scs), adopt(model.group, &textures[0]), adopt(switchNode, &gun);
        adopt(group, &face, &lod, &switchNode, &hull, &plain, static_cast<vudbNode *>(nullptr));
        vudbNodeAddParent(&group.node, &scene.node);
        vudbFaceCreateVertexIndexList(&face), vudbFaceAddVertexIndexToList(&face, 7);
        vudbModelAddTextureToArray(&model, &textures[0]), vudbModelAddTextureToArray(&model, &textures[1]);
        Vertex *vertex = createVertex(1, 2, 3);
        free(vudbModelAddVertexToArray(&model, vertex) < 0 ? vertex : nullptr);
    }
    Everything(const Everything &) = delete;
    // Releases what was not released yet.
    ~Everything()
    {
        const auto groups = {&scene, &group, &lod.group, &switchNode, &gun, &hull, &dcs.group, &scs.group};
        std::ranges::for_each(groups, vudbGroupFree);
        vudbFaceFreeAll(&face), vudbNodeFree(&plain), vudbModelFreeAll(&model);
        vudbTextureFree(&textures[0]), vudbTextureFree(&textures[1]);
    }
};

TEST(Group, EveryKindReportsMisuse)
{
    vuMatrix m;
    const auto misuse = [&]
    {
        vudbGroupInit(nullptr, "n"), vudbSceneInit(nullptr, "n"), vudbObjectInit(nullptr, "n");
        vudbLODInit(nullptr, "n"), vudbSwitchInit(nullptr, "n");
        vudbGroupFree(nullptr), vudbSceneFree(nullptr), vudbObjectFree(nullptr), vudbSwitchFree(nullptr);
        vudbGroupFreeHierarchy(nullptr, nullptr);
        EXPECT_TRUE(!vudbGroupGetChildrenList(nullptr) && !vudbGroupGetIndexedChild(nullptr, 0));
        EXPECT_TRUE(vudbGroupAddChild(nullptr, nullptr) == -1 && vudbGroupGetNumberOfChildren(nullptr) == -1);
        vudbGroupPrintHierarchy(stdout, nullptr), vudbGroupDeleteHierarchy(nullptr);
        vudbLODFree(nullptr), vudbLODSetInDistance(nullptr, 1), vudbLODSetOutDistance(nullptr, 1);
        vudbEntityDCSInit(nullptr, "n", nullptr), vudbEntitySCSInit(nullptr, "n", nullptr);
        vudbEntityDCSFree(nullptr), vudbEntityDCSSetPositionMat(nullptr, m), vudbEntityDCSSetOrientationMat(nullptr, m);
        vudbEntityDCSGetPositionMat(nullptr, m), vudbEntityDCSGetOrientationMat(nullptr, m);
        vudbEntitySCSFree(nullptr), vudbEntitySCSSetPositionMat(nullptr, m), vudbEntitySCSSetOrientationMat(nullptr, m);
        vudbEntitySCSGetPositionMat(nullptr, m), vudbEntitySCSGetOrientationMat(nullptr, m);
    };
    std::string reports =
        linesOf("Group Scene Object LOD", "vuDB/vudb% Error: {vudb%Init(vudb% *node = NULL, char *name)}") +
        "vuDB/vudbSwitch Error: {vudbSwitchInit(): node == NULL}\n" +
        linesOf("Group Scene", "vuDB/vudb% Warning: vudb%Free(vudb% *node = NULL)") +
        linesOf("Object Switch", "vuDB/vudb% Warning: {vudb%Free(vudb% *node = NULL)}") +
        R"(vuDB/vudbGroup Warning: vudbGroupGetIndexedChild: node == NULL || childrenlist == NULL
vuDB/vudbGroup Warning: vudbGroupAddChild(vudbGroup *node = 0x(nil), vudbNode *child = 0x(nil))
vuDB/vudbGroup Warning: {(vudbGroup *node = 0x(nil))}
)" + linesOf("Print Delete", "vuDB/vudbGroup Error: {vudbGroup%Hierarchy(): vudbGroup *node = 0x(nil))}") +
        linesOf("Free SetInDistance SetOutDistance", "vuDB/vudbLOD Warning: {vudbLOD%(vudbLOD *node = NULL)}") +
        linesOf("DCS SCS", "vuDB/vudbEntity Error: {vudbEntity%Init(vudbEntity% *node == NULL)}");
    for (const std::string kind : {"DCS", "SCS"})
    {
        reports += linesOf("Free SetPositionMat SetOrientationMat GetPositionMat GetOrientationMat",
                           "vuDB/vudbEntity Warning: {vudbEntity" + kind + "%(vudbEntity" + kind + " *node == NULL)}");
    }
    EXPECT_EQ(reportsOf(misuse), reports);
}

TEST(Group, Children)
{
    vudbGroup group;
    vudbNode nodes[51];
    vudbGroupInit(&group, "g");
    for (int i = 0; i < 51; ++i)
    {
        EXPECT_TRUE(vudbGroupAddChild(&group, &nodes[i]) == i + 1 && group.maxChildren == (i < 50 ? 50 : 100));
    }
    EXPECT_EQ(vudbGroupInsertChild(&group, nullptr), 52);
    const auto child = [&](int index) { return vudbGroupGetIndexedChild(&group, index); };
    EXPECT_TRUE(child(0) == &nodes[0] && child(49) == &nodes[49] && child(50) == &nodes[50]);
    EXPECT_TRUE(vudbGroupGetChildrenList(&group) == group.children && vudbGroupGetNumberOfChildren(&group) == 52);
    EXPECT_EQ(reportsOf([&] { EXPECT_TRUE(!child(51) && !child(52) && !child(-1) && !child(53)); }),
              "vuDB/vudbGroup Warning: No child at index: 53 - number of children in list: 52\n");
    vudbGroupFree(&group);
    EXPECT_TRUE(vudbGroupGetNumberOfChildren(&group) == 0 && !group.children && group.node.type == VUDB_UNKNOWN);
}

TEST(Group, PrintsEveryKind)
{
    std::string text;
    const auto print = [](FILE *stream)
    {
        Everything all;
        vudbGroupPrintHierarchy(stream, &all.scene.node), vudbModelPrintAllObjects(stream, &all.scene.node);
    };
    EXPECT_EQ(reportsOf([&] { text = printedTo(print); }),
              R"(vuDB/vudbEntity Warning: {vudbEntitySCSInit():Model == NULL}
vuDB/vudbModel Warning: {vudbModelAddVertexToArray(): vertex array == NULL! Creating ...!}
vuDB/vudbGroup Error: {vudbGroupPrintHierarchy(): nodeType of plain  == Node (no children ...)}
vuDB/vudbGroup Error: {vudbGroupPrintHierarchy(): vudbGroup *node = 0x(nil))}
vuDB/vudbModel Error: {vudbModelPrintAllObjects(): node == NULL}
)");
    EXPECT_EQ(text, R"(scene (type:3 / 4 children): (Parent: none)
*** Children:
group (type:2 / 6 children): (Parent: scene)
*** Children:
face (type:5 / 0 children): (Parent: none)
lod (type:10 / 0 children): (Parent: none)
switch (type:9 / 1 children): (Parent: none)
*** Children:
gun (type:12 / 0 children): (Parent: none)
hull (type:12 / 0 children): (Parent: none)
model (type:4 / 1 children)
Bounding Box: 0.000000 1.000000 0.000000 2.000000 0.000000 3.000000
*** Children:
texture (type:2 / 0 children): (Parent: none)
dcs (type:6 / 0 children): (Parent: none)
scs (type:7 / 0 children): (Parent: none)
Object: gun
Object: hull
)");
}

TEST(Group, FreesEveryNodeOnce)
{
    // More paths, one to a texture ahead of its model, and a circle. Records are overwritten, not to be looked at any more.
    static std::vector<void *> records;
    alignas(Everything) char storage[sizeof(Everything)];
    auto &all = *new (storage) Everything;
    adopt(all.switchNode, &all.model), adopt(all.lod.group, &all.plain), adopt(all.hull, &all.textures[1], &all.scene);
    vudbGroupFreeHierarchy(&all.hull.node,
                           [](vudbNode *record)
                           {
                               records.push_back(record);
                               memset(static_cast<void *>(record), 0x5A, sizeof *record);
                           });
    const std::vector<void *> expected = {&all.scene,       &all.group, &all.face,  &all.lod,   &all.switchNode,
                                          &all.gun,         &all.hull,  &all.plain, &all.model, &all.textures[0],
                                          &all.textures[1], &all.dcs,   &all.scs};
    EXPECT_TRUE(std::ranges::is_permutation(records, expected)) << records.size();
}

TEST(Group, DeletionReleasesAsEachKindDoes)
{
    // scene - (hull - (plain, face, model - texture, dcs), lod, other, dcs): the dcs is on two paths
    Everything all;
    auto *scene = static_cast<vudbScene *>(malloc(sizeof(vudbScene)));
    auto *dcs = static_cast<vudbEntityDCS *>(malloc(sizeof(vudbEntityDCS)));
    vudbNode other;
    vudbSceneInit(scene, "scene"), vudbEntityDCSInit(dcs, "dcs", &all.model.group.node), vudbNodeInit(&other, "other");
    vudbLODSetInDistance(&all.lod, 3), vudbLODSetOutDistance(&all.lod, 4);
    EXPECT_TRUE(all.lod.inDistance == 3 && all.lod.outDistance == 4);
    adopt(all.hull, &all.plain, &all.face, &all.model, dcs), adopt(*scene, &all.hull, &all.lod, &other, dcs);
    const std::vector<void *> kept = {scene->node.name,
                                      scene->children,
                                      dcs->group.node.name,
                                      dcs->group.node.bbox,
                                      all.model.vudbm_vertexArray->vertices[0],
                                      all.model.vudbm_vertexArray->vertices,
                                      all.face.vertexIndexList->indices};
    EXPECT_EQ(reportsOf([&] { vudbGroupDeleteHierarchy(&scene->node); }),
              linesOf("plain other",
                      "vuDB/vudbGroup Error: {vudbGroupDeleteHierarchy(): nodeType of %  == Node (no children ...)}"));
    EXPECT_TRUE(!all.face.vertexIndexList && all.lod.inDistance == 0 && all.lod.outDistance == 0 && !all.hull.children);
    EXPECT_TRUE(!all.model.vudbm_vertexArray && !all.model.vudbm_textures && all.model.group.numChildren == 0);
    EXPECT_TRUE(all.model.vudbm_file && all.model.group.node.name && all.model.group.node.bbox && all.plain.name);
    EXPECT_TRUE(!all.textures[1].fileName && !all.textures[0].group.node.name && all.gun.node.name);
    std::ranges::for_each(kept, free);
    vudbNodeFree(&other);
}

TEST(Group, DeepHierarchies)
{
    std::vector<vudbGroup> groups(100000);
    for (int round = 0; round < 2; ++round)
    {
        vudbObjectInit(&groups[0], "g");
        for (size_t i = 1; i < groups.size(); ++i)
        {
            vudbObjectInit(&groups[i], "g");
            adopt(groups[i - 1], &groups[i]);
        }
        const auto print = [&](FILE *stream) { vudbModelPrintAllObjects(stream, &groups[0].node); };
        EXPECT_EQ(printedTo(print).size(), 10 * groups.size());
        printedTo([&](FILE *stream) { vudbGroupPrintHierarchy(stream, &groups[0].node); });
        round == 0 ? vudbGroupDeleteHierarchy(&groups[0].node) : vudbGroupFreeHierarchy(&groups[0].node, nullptr);
        EXPECT_TRUE(groups.back().node.name == nullptr && groups.front().children == nullptr);
    }
}

TEST(Entity, BoxAndMatrices)
{
    Everything all;
    vudbNode *model = &all.model.group.node;
    EXPECT_EQ(memcmp(all.dcs.group.node.bbox, model->bbox, sizeof(vudbBoundingBox)), 0);
    EXPECT_TRUE(all.dcs.model == model && !all.scs.model && !all.scs.group.node.bbox);
    const vuMatrix a = {{1, 2, 3, 4}, {5, 6, 7, 8}, {9, 10, 11, 12}, {13, 14, 15, 16}};
    vuMatrix out, identity;
    vuMakeIdentMatrix(identity);
    const auto check = [&](auto set, auto get, auto getOther)
    {
        set(&all.dcs, a), get(&all.dcs, out);
        EXPECT_EQ(memcmp(out, a, 64), 0);
        getOther(&all.dcs, out), set(&all.dcs, identity);
        EXPECT_EQ(memcmp(out, identity, 64), 0);
    };
    check(vudbEntityDCSSetPositionMat, vudbEntityDCSGetPositionMat, vudbEntityDCSGetOrientationMat);
    check(vudbEntityDCSSetOrientationMat, vudbEntityDCSGetOrientationMat, vudbEntityDCSGetPositionMat);
    check(vudbEntitySCSSetPositionMat, vudbEntitySCSGetPositionMat, vudbEntitySCSGetOrientationMat);
    check(vudbEntitySCSSetOrientationMat, vudbEntitySCSGetOrientationMat, vudbEntitySCSGetPositionMat);

    auto *dcs = static_cast<vudbEntityDCS *>(malloc(sizeof(vudbEntityDCS)));
    auto *scs = static_cast<vudbEntitySCS *>(malloc(sizeof(vudbEntitySCS)));
    EXPECT_EQ(reportsOf([&] { vudbEntityDCSInit(dcs, "d", nullptr), vudbEntitySCSInit(scs, "s", model); }),
              "vuDB/vudbEntity Warning: {vudbEntityDCSInit():Model == NULL}\n");
    vudbEntityDCSFree(dcs), vudbEntitySCSFree(scs);
}

TEST(Group, WantOfMemoryLosesNothing)
{
    for (int allocations = 0, left = 0; left == 0; ++allocations)
    {
        const auto use = [&]
        {
            succeeding = allocations;
            Everything all;
            const float box[6] = {};
            vuMatrix position;
            vuMakeIdentMatrix(position);
            vudbNodeRecalcBoundingBox(&all.group.node, box);
            vudbNodeTransformBoundingBox(&all.group.node, position, position, 0);
            vudbNodeSetName(&all.plain, "x"), vudbModelSetFile(&all.model, "x");
            vudbModelPrintAllObjects(stderr, &all.scene.node), vudbGroupPrintHierarchy(stderr, &all.scene.node);
            vudbGroupFreeHierarchy(&all.scene.node, nullptr);
            left = succeeding;
            succeeding = INT_MAX;
        };
        reportsOf(use);
    }
}
