#include "vudbTexture.h"

#include "vudbprivate.hpp"

namespace
{
constexpr char kModule[] = "vuDB/vudbTexture";
} // namespace

void vudbTextureInit(vudbTexture *node, const char *name, const char *fileName)
{
    if (isNull(node, "Error", kModule, RED("vudbTextureInit(vudbTexture *node == NULL)")))
    {
        return;
    }
    vudbGroupInit(&node->group, name);
    node->fileName = nullptr;
    if (fileName == nullptr)
    {
        vuMessage("Warning", kModule, __LINE__, RED("vudbTextureInit() (%s): filename == NULL"), shown(name));
        return;
    }
    replaceString(node->fileName, fileName);
}

void vudbTextureFree(vudbTexture *texture)
{
    if (!isNull(texture, "Error", kModule, RED("vudbTextureFree(vudbTexture *node == NULL)")))
    {
        vudbGroupFree(&texture->group);
        free(texture->fileName);
        texture->fileName = nullptr;
    }
}
