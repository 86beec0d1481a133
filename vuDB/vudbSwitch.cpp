#include "vudbSwitch.h"

#include "vudbprivate.hpp"

namespace
{
constexpr char kModule[] = "vuDB/vudbSwitch";
} // namespace

void vudbSwitchInit(vudbSwitch *node, const char *name)
{
    if (!isNull(node, "Error", kModule, RED("vudbSwitchInit(): node == NULL")))
    {
        vudbGroupInit(node, name);
        node->node.type = VUDB_SWITCH;
    }
}

void vudbSwitchFree(vudbSwitch *node)
{
    if (!isNull(node, "Warning", kModule, RED("vudbSwitchFree(vudbSwitch *node = NULL)")))
    {
        vudbGroupFree(node);
    }
}
