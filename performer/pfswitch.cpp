#include "pfswitch.h"

#include "pfnode.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace
{

void releaseRanges(void *object, pfDeletion &)
{
    pfFree(static_cast<pfLOD *>(object)->ranges);
}

constinit pfType switchType = {"pfSwitch", &pfGroupType, nullptr};
constinit pfType lodType = {"pfLOD", &pfGroupType, releaseRanges};

// Make room for so many ranges; false, and nothing changed, when there is none. The LOD never points to an array that was
// given back.
bool reserveRanges(pfLOD &lod, size_t count)
{
    if (count <= lod.rangeCapacity)
    {
        return true;
    }
    const size_t capacity = std::max<size_t>({4, 2 * lod.rangeCapacity, count});
    float *grown = static_cast<float *>(pfMalloc(capacity * sizeof(float), lod.arena));
    if (grown == nullptr)
    {
        return false;
    }
    float *const old = lod.ranges;
    std::copy_n(old, lod.rangeCount, grown);
    lod.ranges = grown;
    pfFree(old);
    lod.rangeCapacity = capacity;
    return true;
}

bool isNumber(const char *function, int index)
{
    const bool found = index >= 0 && index < PFLOD_MAX_RANGES;
    if (!found)
    {
        fprintf(stderr, "%s: no range number %d\n", function, index);
    }
    return found;
}

float rangeAt(const pfLOD &lod, int index)
{
    return index < lod.rangeCount ? lod.ranges[index] : 0.0F;
}

} // namespace

pfType *pfGetSwitchClassType(void)
{
    return &switchType;
}

pfType *pfGetLODClassType(void)
{
    return &lodType;
}

pfSwitch *pfNewSwitch(void *arena)
{
    pfSwitch *made = pfMakeNode<pfSwitch>(switchType, NodeKind::Switch, arena);
    if (made != nullptr)
    {
        made->value = PFSWITCH_OFF;
    }
    return made;
}

pfLOD *pfNewLOD(void *arena)
{
    return pfMakeNode<pfLOD>(lodType, NodeKind::Lod, arena);
}

int pfSwitchVal(pfSwitch *node, int value)
{
    if (!pfIsGiven(__func__, node, switchType))
    {
        return 0;
    }
    if (value < PFSWITCH_OFF)
    {
        fprintf(stderr, "%s: %d is not a value of switches\n", __func__, value);
        return 0;
    }
    node->value = value;
    return 1;
}

int pfGetSwitchVal(const pfSwitch *node)
{
    return pfIsGiven(__func__, node, switchType) ? node->value : 0;
}

int pfLODRange(pfLOD *lod, int index, float range)
{
    if (!pfIsGiven(__func__, lod, lodType) || !isNumber(__func__, index) ||
        !reserveRanges(*lod, static_cast<size_t>(index) + 1))
    {
        return 0;
    }
    if (index >= lod->rangeCount)
    {
        std::fill(lod->ranges + lod->rangeCount, lod->ranges + index, 0.0F);
    }
    lod->ranges[index] = range;
    lod->rangeCount = std::max(lod->rangeCount, index + 1);
    return 1;
}

float pfGetLODRange(const pfLOD *lod, int index)
{
    return pfIsGiven(__func__, lod, lodType) && isNumber(__func__, index) ? rangeAt(*lod, index) : 0.0F;
}

int pfGetLODNumRanges(const pfLOD *lod)
{
    return pfIsGiven(__func__, lod, lodType) ? lod->rangeCount : 0;
}

void pfLODCenter(pfLOD *lod, const pfVec3 center)
{
    if (pfIsGiven(__func__, lod, lodType))
    {
        std::copy_n(center, 3, lod->center);
    }
}

void pfGetLODCenter(const pfLOD *lod, pfVec3 center)
{
    if (pfIsGiven(__func__, lod, lodType))
    {
        std::copy_n(lod->center, 3, center);
    }
}

int pfLODChildAt(const pfLOD *lod, const pfVec3 eye)
{
    if (!pfIsGiven(__func__, lod, lodType))
    {
        return -1;
    }
    double square = 0.0;
    for (int axis = 0; axis < 3; ++axis)
    {
        const double difference = static_cast<double>(eye[axis]) - lod->center[axis];
        square += difference * difference;
    }
    const double distance = std::sqrt(square); // not rounded to a float: that might be on the other side of a range
    const int count = std::min(lod->count, lod->rangeCount - 1);
    for (int i = 0; i < count; ++i)
    {
        if (distance >= lod->ranges[i] && distance < lod->ranges[i + 1])
        {
            return i;
        }
    }
    return -1;
}
