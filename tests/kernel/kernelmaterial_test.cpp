#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <span>
#include <utility>
#include <vector>

#include <tolvin/kernel/kernelmaterial.h>
#include <tolvin/performer/pf.h>

#include "support/capture.h"

static size_t blocksInUse()
{
    pfArenaInfo info;
    pfGetArenaInfo(&info);
    return info.blocksInUse;
}

// Takes all room of the arena but for so many allocations of the size of a platform material or less; what was taken.
static std::vector<void *> leaveRoom(void *arena, size_t count)
{
    std::vector<void *> taken;
    for (void *block; (block = pfNewMtl(arena)) || (block = pfMalloc(1, arena));)
    {
        taken.push_back(block);
    }
    for (size_t i = 0; i < count; ++i)
    {
        pfFree(std::exchange(taken[2 * i], nullptr)); // its neighbours stay, so that the gaps do not join
    }
    return taken;
}

// Two lists, A and B, of a root node.
class Materials : public testing::Test
{
protected:
    vuRootNode root = {};
    vuMaterialList lists[2];
    static inline int nextId = 0;
    static inline void *const arena = (pfSharedArenaSize(1 << 17), pfGetSharedArena());

    Materials()
    {
        materialListInit(&lists[0], "A"), materialListInit(&lists[1], "B");
        vunodeAppend(&root.materialLists, &lists[0].node), vunodeAppend(&root.materialLists, &lists[1].node);
    }
    vuMaterial *add(int list, const char *name, uint32_t mask = 0)
    {
        auto *material = static_cast<vuMaterial *>(pfMalloc(sizeof(vuMaterial), arena));
        memset(material, 0xA5, sizeof *material);
        EXPECT_TRUE(materialInit(material, name) == nextId && material->id == nextId++);
        EXPECT_TRUE(material->node.type == 14 && material->mask == 0);
        material->mask = mask;
        vunodeAppend(&lists[list].list, &material->node);
        return material;
    }
    // Loads all lists; whether that made so many for each and said so.
    bool load(int a, int b)
    {
        const std::string said = capturedStderr([&] { EXPECT_EQ(materialListLoadList(&root), a + b); });
        const auto line = [](int made) { return " Debug: Num Mat: " + std::to_string(made) + '\n'; };
        return lists[0].numMaterials == a && lists[1].numMaterials == b && said.ends_with(line(b)) &&
               said.starts_with("kernelmaterial:") && said.find(line(a) + "kernelmaterial:") != said.npos;
    }
};

TEST_F(Materials, SearchCountAndDump)
{
    vuMaterial *const first = add(0, "x", 0x20), *all = add(1, "y", 0x3F), *material = first;
    vuMaterialList *list = nullptr;
    add(0, nullptr), add(0, "x"), add(1, "x"), add(1, "y");
    EXPECT_TRUE(materialFindNamed(&lists[0], "x") == first && !materialFindNamed(&lists[0], "y"));
    EXPECT_TRUE(materialListFindNamed(&root, "B") == &lists[1] && !materialListFindNamed(&root, "C"));
    EXPECT_TRUE(materialListSearchMaterialNamed(&root, "y") == all && !materialListSearchMaterialNamed(&root, "Y"));
    EXPECT_EQ(materialListSearchMaterialAndList(&root, "Y", &material, &list), 0);
    EXPECT_TRUE(material == first && list == nullptr);
    EXPECT_EQ(materialListSearchMaterialAndList(&root, "y", &material, &list), 1);
    EXPECT_TRUE(material == all && list == &lists[1]);
    EXPECT_EQ(materialListsCount(&root) * 10 + materialsCount(&lists[1]), 23);
    EXPECT_EQ(capturedStderr([] { EXPECT_EQ(materialsCount(nullptr), 0); }), "NULL Materiallist\n");

    first->specular[1] = 0.25f;
    const float values[] = {0.1f, 1e-7f, -2, 16777216, 0, 1, 3e38f, 0.3f, 1 / 3.0f, 4, 5, 6, 128, -0.5f};
    std::ranges::copy(values, all->ambient); // and on, to alpha
    char *text = nullptr;
    size_t size = 0;
    FILE *stream = open_memstream(&text, &size);
    materialListPrintList(&root, stream);
    fclose(stream);
    EXPECT_STREQ(text, "\nMATERIALLIST \"A\" {\n  MATERIAL \"x\" {\n    SPECULAR   0 0.25 0\n  }\n"
                       "  MATERIAL \"(null)\" {\n  }\n  MATERIAL \"x\" {\n  }\n}\n\nMATERIALLIST \"B\" {\n"
                       "  MATERIAL \"y\" {\n    AMBIENT    0.1 1e-07 -2\n    DIFFUSE    1.67772e+07 0 1\n"
                       "    SPECULAR   3e+38 0.3 0.333333\n    EMISSIVE    4 5 6\n    SHININESS  128\n"
                       "    ALPHA      -0.5\n  }\n  MATERIAL \"x\" {\n  }\n  MATERIAL \"y\" {\n  }\n}\n");
    free(text);
}

TEST_F(Materials, PlatformMaterialsGetAllValuesAndStayWhileInUse)
{
    const float odd[] = {-1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 128.5f, 0.25f};
    const float defaults[] = {0.2f, 0.2f, 0.2f, 0.8f, 0.8f, 0.8f, 0, 0, 0, 0, 0, 0, 0, 1};
    const std::pair<uint32_t, int> modes[] = {{0x20, 0x1602}, {0x28, 0x1201}, {0x30, 0x1200}, {0x3F, 0}};
    for (const auto &[mask, mode] : modes)
    {
        vuMaterial *material = add(0, "m", mask);
        std::copy(odd, odd + (mask == 0x20 ? 0 : 14), material->ambient);
        EXPECT_EQ(materialLoadList(&lists[0]), 1);
        pfMaterial *mtl = material->mtl;
        const float *want = mask == 0x20 ? defaults : odd;
        EXPECT_TRUE(pfGetMtlColorMode(mtl, 1) == mode && pfGetMtlColorMode(mtl, 2) == 0);
        EXPECT_TRUE(pfGetMtlShininess(mtl) == want[12] && pfGetMtlAlpha(mtl) == want[13]);
        for (int which : {0x1200, 0x1201, 0x1202, 0x1600})
        {
            float rgb[3];
            pfGetMtlColor(mtl, which, &rgb[0], &rgb[1], &rgb[2]);
            EXPECT_TRUE(std::equal(rgb, rgb + 3, want)) << mask << ' ' << which;
            want += 3;
        }
        pfRef(mtl);
        capturedStderr([&] { materialFreeAll(&lists[0]); });
        EXPECT_EQ(pfDelete(mtl) * 10 + pfUnref(mtl), 0);
        EXPECT_EQ(pfDelete(mtl), 1);
    }
}

// With every number of allocations that the arena may still grant (three platform materials, then the array), and again
// with all of it after more materials were appended.
TEST_F(Materials, ArraysAfterLoadingAgainAndWithoutRoom)
{
    const size_t blocks = blocksInUse();
    for (int room = 0; room <= 4; ++room)
    {
        vuMaterial *const wanted[] = {add(0, "1"), add(0, nullptr), add(0, "3"), add(0, "4")};
        vunodeRemove(&lists[0].list, &wanted[3]->node);
        std::vector<void *> taken = leaveRoom(arena, room);
        const int made = std::min(room, 3);
        EXPECT_TRUE(load(made, 0));
        EXPECT_TRUE(made == 0 || !lists[0].materials == (room < 4));
        EXPECT_TRUE(!wanted[0]->mtl == (room < 1) && !wanted[1]->mtl == (room < 2) && !wanted[2]->mtl == (room < 3));
        std::ranges::for_each(taken, pfFree);

        vunodeAppend(&lists[0].list, &wanted[3]->node);
        vuMaterial *const other = add(1, "b");
        EXPECT_TRUE(load(4 - made, 1));
        vuMaterial **const array = lists[0].materials;
        EXPECT_TRUE(std::ranges::equal(wanted, std::span(array, 4)) && lists[1].materials[0] == other);
        EXPECT_TRUE(load(0, 0));
        EXPECT_EQ(lists[0].materials, array);

        EXPECT_EQ(capturedStderr([&] { materialFreeAll(&lists[0]), materialFreeAll(&lists[1]); }),
                  "Material: free 1\nMaterial: free (null)\nMaterial: free 3\nMaterial: free 4\nMaterial: free b\n");
        EXPECT_TRUE(!lists[0].list.first && !lists[0].list.last && lists[0].materials == array);
    }
    pfFree(lists[0].materials), pfFree(lists[1].materials);
    EXPECT_EQ(blocksInUse(), blocks);
}
