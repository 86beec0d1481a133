#include "vudbLOD.h"

#include "vudbprivate.hpp"

namespace
{
constexpr char kModule[] = "vuDB/vudbLOD";
} // namespace

void vudbLODInit(vudbLOD *node, const char *name)
{
    if (!isNull(node, "Error", kModule, RED("vudbLODInit(vudbLOD *node = NULL, char *name)")))
    {
        vudbGroupInit(&node->group, name);
        node->group.node.type = VUDB_LOD;
        node->inDistance = 0;
        node->outDistance = 0;
    }
}

void vudbLODFree(vudbLOD *node)
{
    if (!isNull(node, "Warning", kModule, RED("vudbLODFree(vudbLOD *node = NULL)")))
    {
        node->inDistance = 0;
        node->outDistance = 0;
        vudbGroupFree(&node->group);
    }
}

void vudbLODSetInDistance(vudbLOD *node, float distance)
{
    if (!isNull(node, "Warning", kModule, RED("vudbLODSetInDistance(vudbLOD *node = NULL)")))
    {
        node->inDistance = distance;
    }
}

void vudbLODSetOutDistance(vudbLOD *node, float distance)
{
    if (!isNull(node, "Warning", kModule, RED("vudbLODSetOutDistance(vudbLOD *node = NULL)")))
    {
        node->outDistance = distance;
    }
}
