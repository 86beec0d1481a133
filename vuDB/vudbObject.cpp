#include "vudbObject.h"

#include "vudbprivate.hpp"

namespace
{
constexpr char kModule[] = "vuDB/vudbObject";
} // namespace

void vudbObjectInit(vudbObject *node, const char *name)
{
    if (!isNull(node, "Error", kModule, RED("vudbObjectInit(vudbObject *node = NULL, char *name)")))
    {
        vudbGroupInit(node, name);
        node->node.type = VUDB_OBJECT;
    }
}

void vudbObjectFree(vudbObject *node)
{
    if (!isNull(node, "Warning", kModule, RED("vudbObjectFree(vudbObject *node = NULL)")))
    {
        vudbGroupFree(node);
    }
}
