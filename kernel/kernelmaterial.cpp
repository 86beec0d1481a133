#include "kernelmaterial.h"

#include "../performer/pf.h"
#include "kernelutil.h"

#include <algorithm>
#include <span>

namespace
{

constexpr char kModule[] = "kernelmaterial";

uint32_t mtid = 0;

vuMaterial *materialOf(vunode *node)
{
    return reinterpret_cast<vuMaterial *>(node);
}

vuMaterialList *listOf(vunode *node)
{
    return reinterpret_cast<vuMaterialList *>(node);
}

const char *shown(const char *name)
{
    return name != nullptr ? name : "(null)";
}

// The colour of the vertices stands in for what the description left open.
int colorModeOf(const vuMaterial *material)
{
    switch (material->mask & (VU_MATERIAL_AMBIENT | VU_MATERIAL_DIFFUSE))
    {
    case 0:
        return PFMTL_AMBIENT_AND_DIFFUSE;
    case VU_MATERIAL_AMBIENT:
        return PFMTL_DIFFUSE;
    case VU_MATERIAL_DIFFUSE:
        return PFMTL_AMBIENT;
    default:
        return 0;
    }
}

void setColor(pfMaterial *mtl, int which, const float *color)
{
    pfMtlColor(mtl, which, color[0], color[1], color[2]);
}

bool load(vuMaterial *material)
{
    pfMaterial *mtl = pfNewMtl(pfGetSharedArena());
    if (mtl == nullptr)
    {
        return false;
    }
    pfMtlColorMode(mtl, PFMTL_FRONT, colorModeOf(material));
    setColor(mtl, PFMTL_AMBIENT, material->ambient);
    setColor(mtl, PFMTL_DIFFUSE, material->diffuse);
    setColor(mtl, PFMTL_SPECULAR, material->specular);
    setColor(mtl, PFMTL_EMISSION, material->emissive);
    pfMtlShininess(mtl, material->shininess);
    pfMtlAlpha(mtl, material->alpha);
    material->mtl = mtl;
    return true;
}

// An array of all loaded materials of the list, of which there is at least one; null when there is no room.
vuMaterial **newArray(const vuMaterialList *list)
{
    size_t count = 0;
    for (vunode *node = list->list.first; node != nullptr; node = node->next)
    {
        count += materialOf(node)->mtl != nullptr ? 1 : 0;
    }
    auto **array = static_cast<vuMaterial **>(pfMalloc(count * sizeof(vuMaterial *), pfGetSharedArena()));
    if (array == nullptr)
    {
        return nullptr;
    }
    vuMaterial **next = array;
    for (vunode *node = list->list.first; node != nullptr; node = node->next)
    {
        if (materialOf(node)->mtl != nullptr)
        {
            *next++ = materialOf(node);
        }
    }
    return array;
}

void printValues(FILE *stream, const vuMaterial *material, uint32_t bit, const char *keyword,
                 std::span<const float> values)
{
    if ((material->mask & bit) == 0)
    {
        return;
    }
    fprintf(stream, "    %s", keyword);
    for (const float value : values)
    {
        fprintf(stream, " %g", value);
    }
    fputc('\n', stream);
}

void printMaterial(const vuMaterial *material, FILE *stream)
{
    fprintf(stream, "  MATERIAL \"%s\" {\n", shown(material->node.name));
    printValues(stream, material, VU_MATERIAL_AMBIENT, "AMBIENT   ", material->ambient);
    printValues(stream, material, VU_MATERIAL_DIFFUSE, "DIFFUSE   ", material->diffuse);
    printValues(stream, material, VU_MATERIAL_SPECULAR, "SPECULAR  ", material->specular);
    printValues(stream, material, VU_MATERIAL_EMISSIVE, "EMISSIVE   ", material->emissive);
    printValues(stream, material, VU_MATERIAL_SHININESS, "SHININESS ", {&material->shininess, 1});
    printValues(stream, material, VU_MATERIAL_ALPHA, "ALPHA     ", {&material->alpha, 1});
    fputs("  }\n", stream);
}

} // namespace

int materialInit(vuMaterial *material, const char *name)
{
    *material = {};
    vunodeInit(&material->node, name);
    material->node.type = VU_NODE_MATERIAL;
    material->id = static_cast<int32_t>(mtid++);
    std::ranges::fill(material->ambient, 0.2F);
    std::ranges::fill(material->diffuse, 0.8F);
    material->alpha = 1.0F;
    return material->id;
}

void materialListInit(vuMaterialList *list, const char *name)
{
    *list = {};
    vunodeInit(&list->node, name);
}

int materialLoadList(vuMaterialList *list)
{
    int made = 0;
    for (vunode *node = list->list.first; node != nullptr; node = node->next)
    {
        vuMaterial *material = materialOf(node);
        if (material->mtl == nullptr && load(material))
        {
            ++made;
        }
    }
    return made;
}

int materialListLoadList(vuRootNode *root)
{
    int total = 0;
    for (vunode *node = root->materialLists.first; node != nullptr; node = node->next)
    {
        vuMaterialList *list = listOf(node);
        list->numMaterials = materialLoadList(list);
        vuMessage("Debug", kModule, __LINE__, "Num Mat: %d", list->numMaterials);
        if (list->numMaterials > 0)
        {
            vuMaterial **former = list->materials;
            list->materials = newArray(list);
            pfFree(former);
        }
        total += list->numMaterials;
    }
    return total;
}

vuMaterial *materialFindNamed(const vuMaterialList *list, const char *name)
{
    return materialOf(vunodeListFindNamed(&list->list, name));
}

vuMaterialList *materialListFindNamed(const vuRootNode *root, const char *name)
{
    return listOf(vunodeListFindNamed(&root->materialLists, name));
}

vuMaterial *materialListSearchMaterialNamed(const vuRootNode *root, const char *name)
{
    vuMaterial *material = nullptr;
    vuMaterialList *list = nullptr;
    materialListSearchMaterialAndList(root, name, &material, &list);
    return material;
}

int materialListSearchMaterialAndList(const vuRootNode *root, const char *name, vuMaterial **material,
                                      vuMaterialList **list)
{
    for (vunode *node = root->materialLists.first; node != nullptr; node = node->next)
    {
        if (vuMaterial *found = materialFindNamed(listOf(node), name))
        {
            *material = found;
            *list = listOf(node);
            return 1;
        }
    }
    return 0;
}

int materialListsCount(const vuRootNode *root)
{
    return vunodesCount(&root->materialLists);
}

int materialsCount(const vuMaterialList *list)
{
    if (list == nullptr)
    {
        vuMessage(nullptr, kModule, __LINE__, "NULL Materiallist");
        return 0;
    }
    return vunodesCount(&list->list);
}

void materialFreeAll(vuMaterialList *list)
{
    while (list->list.first != nullptr)
    {
        vuMaterial *material = materialOf(list->list.first);
        fprintf(stderr, "Material: free %s\n", shown(material->node.name));
        vunodeDelete(&list->list, &material->node);
        if (material->mtl != nullptr)
        {
            pfDelete(material->mtl);
            material->mtl = nullptr;
        }
        pfFree(material);
    }
}

void materialPrintList(const vuMaterialList *list, FILE *stream)
{
    for (vunode *node = list->list.first; node != nullptr; node = node->next)
    {
        printMaterial(materialOf(node), stream);
    }
}

void materialListPrintList(const vuRootNode *root, FILE *stream)
{
    for (vunode *node = root->materialLists.first; node != nullptr; node = node->next)
    {
        const vuMaterialList *list = listOf(node);
        fprintf(stream, "\nMATERIALLIST \"%s\" {\n", shown(list->node.name));
        materialPrintList(list, stream);
        fputs("}\n", stream);
    }
}
