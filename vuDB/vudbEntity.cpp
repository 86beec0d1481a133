#include "vudbEntity.h"

#include "vudbprivate.hpp"

namespace
{

constexpr char kModule[] = "vuDB/vudbEntity";

// What tells the two kinds of entities apart.
struct Kind
{
    int type;
    const char *name;
};

constexpr Kind kDynamic = {VUDB_ENTITYDCS, "DCS"};
constexpr Kind kStatic = {VUDB_ENTITYSCS, "SCS"};

using Matrix = vuMatrix vudbEntityDCS::*;

bool isMissing(const vudbEntityDCS *node, const char *level, Kind kind, const char *function)
{
    if (node == nullptr)
    {
        vuMessage(level, kModule, __LINE__, RED("vudbEntity%s%s(vudbEntity%s *node == NULL)"), kind.name, function,
                  kind.name);
    }
    return node == nullptr;
}

void init(vudbEntityDCS *node, const char *name, vudbNode *model, Kind kind)
{
    if (isMissing(node, "Error", kind, "Init"))
    {
        return;
    }
    vudbNode *base = &node->group.node;
    vudbGroupInit(&node->group, name);
    base->type = kind.type;
    node->model = model;
    if (model != nullptr)
    {
        vudbNodeSetBoundingBox(base, vudbNodeGetBoundingBoxXmin(model), vudbNodeGetBoundingBoxXmax(model),
                               vudbNodeGetBoundingBoxYmin(model), vudbNodeGetBoundingBoxYmax(model),
                               vudbNodeGetBoundingBoxZmin(model), vudbNodeGetBoundingBoxZmax(model));
    }
    else
    {
        vuMessage("Warning", kModule, __LINE__, RED("vudbEntity%sInit():Model == NULL"), kind.name);
    }
    vuMakeIdentMatrix(node->positionMat);
    vuMakeIdentMatrix(node->orientationMat);
}

void release(vudbEntityDCS *node, Kind kind)
{
    if (!isMissing(node, "Warning", kind, "Free"))
    {
        vudbGroupFree(&node->group);
        free(node);
    }
}

void set(vudbEntityDCS *node, Matrix own, const vuMatrix mat, Kind kind, const char *function)
{
    if (!isMissing(node, "Warning", kind, function))
    {
        vuCopyMatrix(node->*own, mat);
    }
}

void get(const vudbEntityDCS *node, Matrix own, vuMatrix out, Kind kind, const char *function)
{
    if (!isMissing(node, "Warning", kind, function))
    {
        vuCopyMatrix(out, node->*own);
    }
}

} // namespace

void vudbEntityDCSInit(vudbEntityDCS *node, const char *name, vudbNode *model)
{
    init(node, name, model, kDynamic);
}

void vudbEntitySCSInit(vudbEntitySCS *node, const char *name, vudbNode *model)
{
    init(node, name, model, kStatic);
}

void vudbEntityDCSFree(vudbEntityDCS *node)
{
    release(node, kDynamic);
}

void vudbEntitySCSFree(vudbEntitySCS *node)
{
    release(node, kStatic);
}

void vudbEntityDCSSetPositionMat(vudbEntityDCS *node, const vuMatrix mat)
{
    set(node, &vudbEntityDCS::positionMat, mat, kDynamic, "SetPositionMat");
}

void vudbEntitySCSSetPositionMat(vudbEntitySCS *node, const vuMatrix mat)
{
    set(node, &vudbEntitySCS::positionMat, mat, kStatic, "SetPositionMat");
}

void vudbEntityDCSSetOrientationMat(vudbEntityDCS *node, const vuMatrix mat)
{
    set(node, &vudbEntityDCS::orientationMat, mat, kDynamic, "SetOrientationMat");
}

void vudbEntitySCSSetOrientationMat(vudbEntitySCS *node, const vuMatrix mat)
{
    set(node, &vudbEntitySCS::orientationMat, mat, kStatic, "SetOrientationMat");
}

void vudbEntityDCSGetPositionMat(const vudbEntityDCS *node, vuMatrix out)
{
    get(node, &vudbEntityDCS::positionMat, out, kDynamic, "GetPositionMat");
}

void vudbEntitySCSGetPositionMat(const vudbEntitySCS *node, vuMatrix out)
{
    get(node, &vudbEntitySCS::positionMat, out, kStatic, "GetPositionMat");
}

void vudbEntityDCSGetOrientationMat(const vudbEntityDCS *node, vuMatrix out)
{
    get(node, &vudbEntityDCS::orientationMat, out, kDynamic, "GetOrientationMat");
}

void vudbEntitySCSGetOrientationMat(const vudbEntitySCS *node, vuMatrix out)
{
    get(node, &vudbEntitySCS::orientationMat, out, kStatic, "GetOrientationMat");
}
