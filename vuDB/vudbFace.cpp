#include "vudbFace.h"

#include "vudbprivate.hpp"

namespace
{
constexpr char kModule[] = "vuDB/vudbFace";
} // namespace

void vudbFaceInit(vudbFace *node, const char *name)
{
    if (!isNull(node, "Error", kModule, RED("vudbFaceInit(): node == NULL")))
    {
        vudbGroupInit(&node->group, name);
        node->group.node.type = VUDB_FACE;
        node->vertexIndexList = nullptr;
        node->textureIndex = -1;
        node->drawingMode = 1;
    }
}

void vudbFaceFree(vudbFace *face)
{
    if (!isNull(face, "Warning", kModule, "vudbFaceFree(vudbFace *node = NULL)"))
    {
        vudbGroupFree(&face->group);
        free(face->vertexIndexList);
        face->vertexIndexList = nullptr;
    }
}

void vudbFaceFreeAll(vudbFace *face)
{
    if (!isNull(face, "Warning", kModule, "vudbFaceFreeAll(vudbFace *node = NULL)"))
    {
        vuFreeIndexList(face->vertexIndexList);
        face->vertexIndexList = nullptr;
        vudbFaceFree(face);
    }
}

void vudbFaceCreateVertexIndexList(vudbFace *face)
{
    if (isNull(face, "Warning", kModule, "vudbCreateVertexIndexList(vudbFace *node = NULL)"))
    {
        return;
    }
    if (vuIndexList *list = vuCreateIndexList())
    {
        face->vertexIndexList = list;
    }
}

vuIndexList *vudbFaceGetVertexIndexList(const vudbFace *face)
{
    const bool isMissing = isNull(face, "Warning", kModule, "vudbFaceGetVertexIndexList(): vudbFace *node == NULL");
    return isMissing ? nullptr : face->vertexIndexList;
}

void vudbFaceAddVertexIndexToList(vudbFace *face, int index)
{
    if (!isNull(face, "Warning", kModule, "vudbFaceAddVertexIndexToList():vudbFace *node == NULL"))
    {
        vuAddIndexToList(face->vertexIndexList, index);
    }
}

int vudbFaceGetVertexIndexFromList(const vudbFace *face, int i)
{
    const bool isMissing = isNull(face, "Warning", kModule, "vudbFaceGetVertexIndexFromList(): vudbFace *node == NULL");
    return isMissing ? -1 : vuGetIndexFromList(face->vertexIndexList, i);
}

void vudbFaceSetTextureIndex(vudbFace *face, int index)
{
    if (!isNull(face, "Warning", kModule, "vudbFaceSetTextureIndex(): vudbFace *node == NULL"))
    {
        face->textureIndex = index;
    }
}

int vudbFaceGetTextureIndex(const vudbFace *face)
{
    const bool isMissing = isNull(face, "Warning", kModule, "vudbFaceGetTextureIndex(): vudbFace *node == NULL");
    return isMissing ? -1 : face->textureIndex;
}

void vudbFaceSetDrawingMode(vudbFace *face, int mode)
{
    if (!isNull(face, "Warning", kModule, "vudbFaceSetDrawingMode(): vudbFace *node == NULL") && mode >= 0)
    {
        face->drawingMode = mode;
    }
}

int vudbFaceGetDrawingMode(const vudbFace *face)
{
    const bool isMissing = isNull(face, "Warning", kModule, "vudbFaceGetDrawingMode(): vudbFace *node == NULL");
    return isMissing ? -1 : face->drawingMode;
}
