#include "pftexture.h"

#include "pftype.hpp"

#include <cstdio>
#include <new>

struct pfTexture
{
    unsigned int *image; // the caller's
    int components;
    int size[3];
    int repeat[2];  // s, t
    int filters[2]; // magnification, minification
    int internalFormat;
};

constinit pfType pfTextureType = {"pfTexture", nullptr, nullptr};

namespace
{

bool isGiven(const char *function, const pfTexture *texture)
{
    if (texture == nullptr)
    {
        fprintf(stderr, "%s: no texture\n", function);
    }
    return texture != nullptr && pfIsGiven(function, texture, pfTextureType);
}

// The report belongs to the condition: a selector that a function does not know.
bool isKnown(const char *function, int which, bool known)
{
    if (!known)
    {
        fprintf(stderr, "%s: 0x%x is not a selector\n", function, static_cast<unsigned>(which));
    }
    return known;
}

bool isRepeat(const char *function, int which)
{
    return isKnown(function, which, which == PFTEX_WRAP || which == PFTEX_WRAP_S || which == PFTEX_WRAP_T);
}

bool isFilter(const char *function, int which)
{
    return isKnown(function, which, which == PFTEX_MAGFILTER || which == PFTEX_MINFILTER);
}

template<typename T>
void store(T *place, T value)
{
    if (place != nullptr)
    {
        *place = value;
    }
}

} // namespace

pfTexture *pfNewTex(void *arena)
{
    void *memory = pfMalloc(sizeof(pfTexture), arena);
    if (memory == nullptr)
    {
        return nullptr;
    }
    pfSetType(memory, pfTextureType);
    auto *texture = new (memory) pfTexture{};
    texture->repeat[0] = PFTEX_REPEAT;
    texture->repeat[1] = PFTEX_REPEAT;
    return texture;
}

void pfTexImage(pfTexture *texture, unsigned int *image, int components, int sx, int sy, int sz)
{
    if (isGiven(__func__, texture))
    {
        texture->image = image;
        texture->components = components;
        texture->size[0] = sx;
        texture->size[1] = sy;
        texture->size[2] = sz;
    }
}

void pfGetTexImage(const pfTexture *texture, unsigned int **image, int *components, int *sx, int *sy, int *sz)
{
    constexpr pfTexture kNone = {};
    const pfTexture &from = isGiven(__func__, texture) ? *texture : kNone;
    store(image, from.image);
    store(components, from.components);
    store(sx, from.size[0]);
    store(sy, from.size[1]);
    store(sz, from.size[2]);
}

void pfTexRepeat(pfTexture *texture, int which, int mode)
{
    if (!isGiven(__func__, texture) || !isRepeat(__func__, which))
    {
        return;
    }
    if (which != PFTEX_WRAP_T)
    {
        texture->repeat[0] = mode;
    }
    if (which != PFTEX_WRAP_S)
    {
        texture->repeat[1] = mode;
    }
}

int pfGetTexRepeat(const pfTexture *texture, int which)
{
    if (!isGiven(__func__, texture) || !isRepeat(__func__, which))
    {
        return 0;
    }
    return texture->repeat[which == PFTEX_WRAP_T ? 1 : 0];
}

void pfTexFilter(pfTexture *texture, int which, int value)
{
    if (isGiven(__func__, texture) && isFilter(__func__, which))
    {
        texture->filters[which - PFTEX_MAGFILTER] = value;
    }
}

int pfGetTexFilter(const pfTexture *texture, int which)
{
    if (!isGiven(__func__, texture) || !isFilter(__func__, which))
    {
        return 0;
    }
    return texture->filters[which - PFTEX_MAGFILTER];
}

void pfTexFormat(pfTexture *texture, int which, int value)
{
    if (isGiven(__func__, texture) && isKnown(__func__, which, which == PFTEX_INTERNAL_FORMAT))
    {
        texture->internalFormat = value;
    }
}

int pfGetTexFormat(const pfTexture *texture, int which)
{
    if (!isGiven(__func__, texture) || !isKnown(__func__, which, which == PFTEX_INTERNAL_FORMAT))
    {
        return 0;
    }
    return texture->internalFormat;
}
