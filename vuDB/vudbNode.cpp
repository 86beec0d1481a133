#include "vudbNode.h"

#include "../geometry/point3d.h"
#include "vudbprivate.hpp"

#include <algorithm>
#include <optional>

namespace
{

constexpr char kModule[] = "vuDB/vudbNode";
constexpr int kParentStep = 50;

// The box of a node, which gets one if need be; null when there is no memory.
vudbBoundingBox *boxOf(vudbNode *node)
{
    if (node->bbox == nullptr)
    {
        node->bbox = static_cast<vudbBoundingBox *>(calloc(1, sizeof(vudbBoundingBox)));
    }
    return node->bbox;
}

void setBox(vudbNode *node, const vudbBoundingBox &box)
{
    vudbNodeSetBoundingBox(node, box.xmin, box.xmax, box.ymin, box.ymax, box.zmin, box.zmax);
}

float extentOf(const vudbNode *node, float vudbBoundingBox::*extent, const char *name)
{
    if (node == nullptr)
    {
        vuMessage("Error", kModule, __LINE__, RED("vudbNodeGetBoundingBox%s(): vudbNode *node == NULL!Returning 0.0"),
                  name);
    }
    return node != nullptr && node->bbox != nullptr ? node->bbox->*extent : 0.0F;
}

void extend(float &min, float &max, float value)
{
    if (value > max)
    {
        max = value;
    }
    else if (value < min)
    {
        min = value;
    }
}

void addPoint(std::optional<vudbBoundingBox> &box, float x, float y, float z)
{
    if (!box)
    {
        box = {x, x, y, y, z, z, 0};
    }
    extend(box->xmin, box->xmax, x);
    extend(box->ymin, box->ymax, y);
    extend(box->zmin, box->zmax, z);
}

// A box without any thickness cannot be hit or culled sensibly. In z it may have none: flat ground does.
void widen(float min, float &max)
{
    if (max == min)
    {
        max = static_cast<float>(min + 0.1);
    }
}

// NaN changes nothing: std::min and std::max return their first argument then.
void merge(vudbBoundingBox &box, const vudbBoundingBox &other)
{
    box.xmin = std::min(box.xmin, other.xmin);
    box.xmax = std::max(box.xmax, other.xmax);
    box.ymin = std::min(box.ymin, other.ymin);
    box.ymax = std::max(box.ymax, other.ymax);
    box.zmin = std::min(box.zmin, other.zmin);
    box.zmax = std::max(box.zmax, other.zmax);
}

void addGeode(std::optional<vudbBoundingBox> &box, const pfGeode *geode)
{
    const int count = pfGetNumGSets(geode);
    for (int i = 0; i < count; ++i)
    {
        pfGeoSet *gset = pfGetGSet(geode, i);
        pfGSetBBox(gset, nullptr, PFBOUND_DYNAMIC);
        pfBox own;
        if (pfGetGSetBBox(gset, &own) == 0)
        {
            continue;
        }
        const auto &[min, max] = own;
        const vudbBoundingBox found = {min[0], max[0], min[1], max[1], min[2], max[2], 0};
        if (box)
        {
            merge(*box, found);
        }
        else
        {
            box = found;
        }
    }
}

// The eight corners of the node's box; null when there is no memory.
P3DfArray *cornersOf(const vudbNode *node)
{
    constexpr int kEnds[8][3] = {{0, 0, 0}, {1, 0, 0}, {0, 0, 1}, {1, 0, 1},
                                 {1, 1, 0}, {1, 1, 1}, {0, 1, 1}, {0, 1, 0}};
    const float x[2] = {vudbNodeGetBoundingBoxXmin(node), vudbNodeGetBoundingBoxXmax(node)};
    const float y[2] = {vudbNodeGetBoundingBoxYmin(node), vudbNodeGetBoundingBoxYmax(node)};
    const float z[2] = {vudbNodeGetBoundingBoxZmin(node), vudbNodeGetBoundingBoxZmax(node)};
    P3DfArray *corners = initP3DfArray();
    for (int i = 0; i < 8 && corners != nullptr; ++i)
    {
        Point3Df *corner = makePoint3Df(x[kEnds[i][0]], y[kEnds[i][1]], z[kEnds[i][2]]);
        if (corner == nullptr)
        {
            freeP3DfArray(corners);
            return nullptr;
        }
        addPoint3DftoArray(corners, corner);
    }
    return corners;
}

} // namespace

const char *const vudbNodeTypeNames[] = {
    "VUDB_UNKNOWN",   "VUDB_NODE",      "VUDB_GROUP",     "VUDB_SCENE",   "VUDB_MODEL",      "VUDB_FACE",
    "VUDB_ENTITYDCS", "VUDB_ENTITYSCS", "VUDB_BILLBOARD", "VUDB_SWITCH",  "VUDB_LOD",        "VUDB_SEQUENCE",
    "VUDB_DCS",       "VUDB_SCS",       "VUDB_GEODE",     "VUDB_LAYER",   "VUDB_LIGHTPOINT", "VUDB_LIGHTSOURCE",
    "VUDB_MORPH",     "VUDB_PARTITION", "VUDB_TEXT",      "VUDB_TEXTURE", "VUDB_END"};

void vudbNodeInit(vudbNode *node, const char *name)
{
    if (isNull(node, "Error", kModule, RED("vudbNodeInit(vudbNode *node = NULL, char *name)")))
    {
        return;
    }
    *node = {};
    node->type = VUDB_NODE;
    if (!isNull(name, "Info", kModule, "no name for node"))
    {
        replaceString(node->name, name);
    }
}

void vudbNodeFree(vudbNode *node)
{
    if (isNull(node, "Warning", kModule, "vudbNodeFree(vudbNode *node = NULL)"))
    {
        return;
    }
    free(node->name);
    free(node->bbox);
    free(node->parents);
    *node = {};
}

int vudbNodeSetType(vudbNode *node, int type)
{
    if (isNull(node, "Error", kModule, RED("vudbNodeSetType(): vudbNode *node == NULL")))
    {
        return 0;
    }
    node->type = type;
    return type;
}

int vudbNodeGetType(const vudbNode *node)
{
    return node->type;
}

const char *vudbNodeSetName(vudbNode *node, const char *name)
{
    if (isNull(node, "Error", kModule, RED("vudbNodeSetName(): vudbNode *node == NULL")))
    {
        return nullptr;
    }
    if (name == nullptr)
    {
        vuMessage("Info", kModule, __LINE__, "vudbNodeSetName():No new name for node given! Name remains \"%s\"",
                  shown(node->name));
        return node->name;
    }
    replaceString(node->name, name);
    return node->name;
}

const char *vudbNodeGetName(const vudbNode *node)
{
    return node->name;
}

void vudbNodeCalculateBoundingBox(vudbNode *node, const VertexArray *array)
{
    if (isNull(node, "Error", kModule, RED("vudbNodeCalculateBoundingBox(): vudbNode *node == NULL")))
    {
        return;
    }
    std::optional<vudbBoundingBox> box;
    const int count = array != nullptr ? array->numVertices : 0;
    for (int i = 0; i < count; ++i)
    {
        if (const Vertex *vertex = array->vertices[i])
        {
            addPoint(box, vertex->x, vertex->y, vertex->z);
        }
    }
    if (box)
    {
        widen(box->xmin, box->xmax);
        widen(box->ymin, box->ymax);
        setBox(node, *box);
    }
}

void vudbNodeRecalcBoundingBox(vudbNode *node, const float box[6])
{
    if (isNull(node, "Error", kModule, RED("vudbNodeRecalcBoundingBox(): vudbNode *node == NULL")))
    {
        return;
    }
    vudbBoundingBox rising = {box[0], box[1], box[2], box[3], box[4], box[5], 1};
    for (; node != nullptr; node = vudbNodeGetIndexedParent(node, 0))
    {
        vudbBoundingBox *own = boxOf(node);
        if (own == nullptr)
        {
            return;
        }
        if (own->initialized == 0)
        {
            *own = rising;
        }
        merge(*own, rising);
        rising = *own;
    }
}

void vudbNodeSetBoundingBox(vudbNode *node, float xmin, float xmax, float ymin, float ymax, float zmin, float zmax)
{
    if (isNull(node, "Error", kModule, RED("vudbNodeSetBoundingBox(): vudbNode *node == NULL")))
    {
        return;
    }
    if (vudbBoundingBox *box = boxOf(node))
    {
        *box = {xmin, xmax, ymin, ymax, zmin, zmax, box->initialized};
    }
}

vudbBoundingBox *vudbNodeGetBoundingBox(const vudbNode *node)
{
    const bool isMissing = isNull(node, "Error", kModule, RED("vudbNodeGetBoundingBox(): vudbNode *node == NULL"));
    return isMissing ? nullptr : node->bbox;
}

float vudbNodeGetBoundingBoxXmin(const vudbNode *node)
{
    return extentOf(node, &vudbBoundingBox::xmin, "Xmin");
}

float vudbNodeGetBoundingBoxXmax(const vudbNode *node)
{
    return extentOf(node, &vudbBoundingBox::xmax, "Xmax");
}

float vudbNodeGetBoundingBoxYmin(const vudbNode *node)
{
    return extentOf(node, &vudbBoundingBox::ymin, "Ymin");
}

float vudbNodeGetBoundingBoxYmax(const vudbNode *node)
{
    return extentOf(node, &vudbBoundingBox::ymax, "Ymax");
}

float vudbNodeGetBoundingBoxZmin(const vudbNode *node)
{
    return extentOf(node, &vudbBoundingBox::zmin, "Zmin");
}

float vudbNodeGetBoundingBoxZmax(const vudbNode *node)
{
    return extentOf(node, &vudbBoundingBox::zmax, "Zmax");
}

void vudbNodeTransformBoundingBox(vudbNode *node, vuMatrix posMat, const vuMatrix orientMat, int fixedRotation)
{
    P3DfArray *corners = cornersOf(node);
    if (corners == nullptr)
    {
        return;
    }
    vuMatrix position, fixed, fixedZ;
    vuCopyMatrix(position, posMat);
    vuMakeYRotationMatrix(fixed, -180.0F);
    vuMakeZRotationMatrix(fixedZ, -90.0F);
    vuMakePostMultiplication(fixed, fixedZ);

    std::optional<vudbBoundingBox> box;
    for (int i = 0; i < corners->numPoints; ++i)
    {
        const Point3Df *corner = corners->points[i];
        vuMatrix moved;
        vuMakeTranslationMatrix(moved, corner->x, corner->y, corner->z);
        if (fixedRotation == 0)
        {
            // Restored ahead of the product: both arguments may be the same matrix.
            vuCopyMatrix(posMat, position);
            vuMakePostMultiplication(moved, orientMat);
            vuMakePreMultiplication(posMat, moved);
        }
        else
        {
            vuCopyMatrix(posMat, moved);
            vuMakePostMultiplication(posMat, fixed);
        }
        addPoint(box, posMat[3][0], posMat[3][1], posMat[3][2]);
    }
    freeP3DfArray(corners);
    setBox(node, *box);
}

vudbNode **vudbNodeGetParentList(const vudbNode *node)
{
    const bool isMissing = isNull(node, "Warning", kModule, "vudbNodeGetParentList(vudbNode *node == NULL)");
    return isMissing ? nullptr : node->parents;
}

vudbNode *vudbNodeGetIndexedParent(const vudbNode *node, int index)
{
    if (node == nullptr || node->parents == nullptr)
    {
        return nullptr;
    }
    if (index > node->numParents)
    {
        vuMessage("Warning", kModule, __LINE__, "No parent at index: %d - number of parents in list: %d", index,
                  node->numParents);
    }
    return index >= 0 && index < node->numParents ? node->parents[index] : nullptr;
}

int vudbNodeAddParent(vudbNode *node, vudbNode *parent)
{
    if (node == nullptr || parent == nullptr)
    {
        vuMessage("Warning", kModule, __LINE__, "vudbNodeAddParent(vudbNode *node = 0x%p, vudbNode *parent = 0x%p)",
                  static_cast<void *>(node), static_cast<void *>(parent));
        return -1;
    }
    const bool isAdded = append(node->parents, node->maxParents, node->numParents, kParentStep, parent);
    return isAdded ? node->numParents : -1;
}

int vudbNodeGetNumberOfParents(const vudbNode *node)
{
    return isNull(node, "Warning", kModule, RED("(vudbNode *node = 0x%p)")) ? -1 : node->numParents;
}

void vudbNodeCalculateBoundingBoxFromPfNode(vudbNode *node, pfNode *pfnode)
{
    std::optional<vudbBoundingBox> box;
    try
    {
        std::vector<pfNode *> open{pfnode};
        while (!open.empty())
        {
            pfNode *next = open.back();
            open.pop_back();
            if (pfIsOfType(next, pfGetGeodeClassType()) != 0)
            {
                addGeode(box, reinterpret_cast<pfGeode *>(next));
            }
            else if (pfIsOfType(next, pfGetGroupClassType()) != 0)
            {
                const auto *group = reinterpret_cast<pfGroup *>(next);
                for (int i = pfGetNumChildren(group); i-- > 0;)
                {
                    open.push_back(pfGetChild(group, i));
                }
            }
        }
    }
    catch (const std::bad_alloc &)
    {
        return;
    }
    if (box)
    {
        setBox(node, *box);
    }
}
