#include "pfmaterial.h"

#include "pftype.hpp"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <new>

struct pfMaterial
{
    int colorModes[2]; // front, back
    float colors[4][3];
    float shininess;
    float alpha;
};

constinit pfType pfMaterialType = {"pfMaterial", nullptr, nullptr};

namespace
{

// In the order of pfMaterial.colors.
constexpr int kColors[] = {PFMTL_AMBIENT, PFMTL_DIFFUSE, PFMTL_SPECULAR, PFMTL_EMISSION};

bool isGiven(const char *function, const pfMaterial *material)
{
    if (material == nullptr)
    {
        fprintf(stderr, "%s: no material\n", function);
    }
    return material != nullptr && pfIsGiven(function, material, pfMaterialType);
}

// The place of a colour in pfMaterial.colors; -1, with a report, when there is no such colour or no material.
ptrdiff_t findColor(const char *function, const pfMaterial *material, int which)
{
    if (!isGiven(function, material))
    {
        return -1;
    }
    const int *found = std::ranges::find(kColors, which);
    if (found == std::end(kColors))
    {
        fprintf(stderr, "%s: 0x%x is not a colour of materials\n", function, static_cast<unsigned>(which));
        return -1;
    }
    return found - kColors;
}

void reportSide(const char *function, int side)
{
    fprintf(stderr, "%s: %d is not a side\n", function, side);
}

} // namespace

pfMaterial *pfNewMtl(void *arena)
{
    void *memory = pfMalloc(sizeof(pfMaterial), arena);
    if (memory == nullptr)
    {
        return nullptr;
    }
    pfSetType(memory, pfMaterialType);
    return new (memory) pfMaterial{
        .colorModes = {}, .colors = {{0.2F, 0.2F, 0.2F}, {0.8F, 0.8F, 0.8F}}, .shininess = 0.0F, .alpha = 1.0F};
}

void pfMtlColorMode(pfMaterial *material, int side, int mode)
{
    if (!isGiven(__func__, material))
    {
        return;
    }
    if (side < PFMTL_FRONT || side > PFMTL_BOTH)
    {
        reportSide(__func__, side);
        return;
    }
    if ((side & PFMTL_FRONT) != 0)
    {
        material->colorModes[0] = mode;
    }
    if ((side & PFMTL_BACK) != 0)
    {
        material->colorModes[1] = mode;
    }
}

int pfGetMtlColorMode(const pfMaterial *material, int side)
{
    if (!isGiven(__func__, material))
    {
        return 0;
    }
    if (side != PFMTL_FRONT && side != PFMTL_BACK)
    {
        reportSide(__func__, side);
        return 0;
    }
    return material->colorModes[side - PFMTL_FRONT];
}

void pfMtlColor(pfMaterial *material, int which, float r, float g, float b)
{
    const ptrdiff_t color = findColor(__func__, material, which);
    if (color >= 0)
    {
        const float rgb[] = {r, g, b};
        std::ranges::copy(rgb, material->colors[color]);
    }
}

void pfGetMtlColor(const pfMaterial *material, int which, float *r, float *g, float *b)
{
    constexpr float kNone[3] = {};
    const ptrdiff_t color = findColor(__func__, material, which);
    const float *from = color >= 0 ? material->colors[color] : kNone;
    *r = from[0];
    *g = from[1];
    *b = from[2];
}

void pfMtlShininess(pfMaterial *material, float shininess)
{
    if (isGiven(__func__, material))
    {
        material->shininess = shininess;
    }
}

float pfGetMtlShininess(const pfMaterial *material)
{
    return isGiven(__func__, material) ? material->shininess : 0.0F;
}

void pfMtlAlpha(pfMaterial *material, float alpha)
{
    if (isGiven(__func__, material))
    {
        material->alpha = alpha;
    }
}

float pfGetMtlAlpha(const pfMaterial *material)
{
    return isGiven(__func__, material) ? material->alpha : 0.0F;
}
