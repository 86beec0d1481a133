#include "vudbScene.h"

#include "vudbprivate.hpp"

namespace
{
constexpr char kModule[] = "vuDB/vudbScene";
} // namespace

void vudbSceneInit(vudbScene *node, const char *name)
{
    if (!isNull(node, "Error", kModule, RED("vudbSceneInit(vudbScene *node = NULL, char *name)")))
    {
        vudbGroupInit(node, name);
        node->node.type = VUDB_SCENE;
    }
}

void vudbSceneFree(vudbScene *node)
{
    if (!isNull(node, "Warning", kModule, "vudbSceneFree(vudbScene *node = NULL)"))
    {
        vudbGroupFree(node);
    }
}
