#include "vudbModel.h"

#include "vudbObject.h"
#include "vudbprivate.hpp"

namespace
{

constexpr char kModule[] = "vuDB/vudbModel";
constexpr int kTextureStep = 20;

// The file's name, which is a copy of the given one then. A null one is reported, and takes the old one away.
const char *setFile(vudbModel *model, const char *file)
{
    if (isNull(file, "Warning", kModule, RED("No name for new model file")))
    {
        free(model->vudbm_file);
        model->vudbm_file = nullptr;
        return nullptr;
    }
    return replaceString(model->vudbm_file, file) ? model->vudbm_file : nullptr;
}

// The vertex array of a model, which gets one if need be; null when there is no memory.
VertexArray *vertexArrayOf(vudbModel *model, const char *function)
{
    if (model->vudbm_vertexArray == nullptr)
    {
        vuMessage("Warning", kModule, __LINE__, RED("%s(): vertex array == NULL! Creating ...!"), function);
        vudbModelCreateVertexArray(model);
    }
    return model->vudbm_vertexArray;
}

} // namespace

void vudbModelInit(vudbModel *node, const char *name, const char *file)
{
    if (isNull(node, "Error", kModule, RED("vudbModelInit(vudbModel *node = NULL, char *name)")))
    {
        return;
    }
    *node = {};
    vudbGroupInit(&node->group, name);
    node->group.node.type = VUDB_MODEL;
    setFile(node, file);
}

void vudbModelFree(vudbModel *model)
{
    if (!isNull(model, "Warning", kModule, RED("vudbModelFree(vudbModel *node = NULL)")))
    {
        free(model->vudbm_file);
        model->vudbm_file = nullptr;
        free(model->vudbm_vertexArray);
        model->vudbm_vertexArray = nullptr;
        vudbGroupFree(&model->group);
    }
}

void vudbModelFreeAll(vudbModel *model)
{
    if (isNull(model, "Warning", kModule, RED("vudbModelFreeAll(vudbModel *node = NULL)")))
    {
        return;
    }
    freeTextures(model);
    if (model->vudbm_vertexArray != nullptr)
    {
        freeVertexArray(model->vudbm_vertexArray);
        model->vudbm_vertexArray = nullptr;
    }
    vudbModelFree(model);
}

const char *vudbModelSetFile(vudbModel *model, const char *file)
{
    if (isNull(model, "Warning", kModule, RED("vudbModel* node == NULL")))
    {
        return nullptr;
    }
    if (model->vudbm_file != nullptr)
    {
        vuMessage("Warning", kModule, __LINE__, "Changed vudbModel's filename from %s to %s.", model->vudbm_file,
                  shown(file));
        vuMessage("Warning", kModule, __LINE__,
                  "You have to take care of the new model yourself, i.e. reload the datas!");
    }
    return setFile(model, file);
}

const char *vudbModelGetFile(const vudbModel *model)
{
    return isNull(model, "Warning", kModule, RED("vudbModel* node == NULL")) ? nullptr : model->vudbm_file;
}

int vudbModelCreateVertexArray(vudbModel *model)
{
    if (isNull(model, "Error", kModule, RED("vudbModelCreateVertexArray(): node == NULL")))
    {
        return -1;
    }
    VertexArray *array = createVertexArray();
    if (array == nullptr)
    {
        return -1;
    }
    model->vudbm_vertexArray = array;
    return 1;
}

VertexArray *vudbModelGetVertexArray(const vudbModel *model)
{
    const bool isMissing = isNull(model, "Error", kModule, RED("vudbModelGetVertexArray(): node == NULL"));
    return isMissing ? nullptr : model->vudbm_vertexArray;
}

int vudbModelAddVertexToArray(vudbModel *model, Vertex *vertex)
{
    if (isNull(model, "Error", kModule, RED("vudbModelAddVertexToArray(): node == NULL")))
    {
        return -1;
    }
    return addVertexToArray(vertexArrayOf(model, "vudbModelAddVertexToArray"), vertex);
}

int vudbModelAddVerticesToArray(vudbModel *model, Vertex *const *vertices, int count, int *indices)
{
    if (isNull(model, "Error", kModule, RED("vudbModelAddVerticesToArray(): node == NULL")))
    {
        return -1;
    }
    if (count <= 0)
    {
        return 0;
    }
    return addVerticesToArray(vertexArrayOf(model, "vudbModelAddVerticesToArray"), vertices, count, indices);
}

Vertex *vudbModelGetIndexedVertex(const vudbModel *model, int index)
{
    const bool isMissing = isNull(model, "Error", kModule, RED("vudbModelGetIndexedVertex(): node == NULL"));
    return isMissing ? nullptr : getIndexedVertex(model->vudbm_vertexArray, index);
}

int vudbModelCreateTextureArray(vudbModel *model)
{
    if (isNull(model, "Error", kModule, RED("vudbModelCreateTextureArray(): node == NULL")))
    {
        return 0;
    }
    model->vudbm_textures = static_cast<vudbTexture **>(calloc(kTextureStep, sizeof(vudbTexture *)));
    model->vudbm_numTextures = 0;
    model->vudbm_maxTextures = model->vudbm_textures != nullptr ? kTextureStep : 0;
    return model->vudbm_textures != nullptr ? 1 : 0;
}

void vudbModelAddTextureToArray(vudbModel *model, vudbTexture *texture)
{
    if (!isNull(model, "Error", kModule, RED("vudbModelAddTextureToArray(): node == NULL")))
    {
        append(model->vudbm_textures, model->vudbm_maxTextures, model->vudbm_numTextures, kTextureStep, texture);
    }
}

int vudbModelGetNumberOfTextures(const vudbModel *model)
{
    const bool isMissing = isNull(model, "Error", kModule, RED("vudbModelGetNumberOfTextures(): node == NULL"));
    return isMissing ? 0 : model->vudbm_numTextures;
}

vudbTexture *vudbModelGetIndexedTextureNode(const vudbModel *model, int index)
{
    if (isNull(model, "Error", kModule, RED("vudbModelGetIndexedTextureNode(): node == NULL")))
    {
        return nullptr;
    }
    if (index > model->vudbm_numTextures)
    {
        vuMessage("Error", kModule, __LINE__, RED("vudbModelGetIndexedTextureNode(): index > node->vudbm_numTextures"));
    }
    return index >= 0 && index < model->vudbm_numTextures ? model->vudbm_textures[index] : nullptr;
}

vudbTexture **vudbModelGetTextureArray(const vudbModel *model)
{
    const bool isMissing = isNull(model, "Error", kModule, RED("vudbModelGetTextureArray(): node == NULL"));
    return isMissing ? nullptr : model->vudbm_textures;
}

void vudbModelPrintAllObjects(FILE *stream, const vudbNode *node)
{
    const auto print = [&](const vudbNode *each)
    {
        if (!isNull(each, "Error", kModule, RED("vudbModelPrintAllObjects(): node == NULL")) &&
            each->type == VUDB_OBJECT)
        {
            fprintf(stream, "Object: %s\n", shown(each->name));
        }
    };
    if (!visitHierarchy(node, Siblings::FirstToLast, print))
    {
        vuMessage("Error", kModule, __LINE__, RED("vudbModelPrintAllObjects(): no memory to keep track of the nodes"));
    }
}
