#include "pfgeoset.h"

#include "pftype.hpp"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <new>

namespace
{

struct Attribute
{
    int binding;
    void *elements;          // the caller's
    unsigned short *indices; // the caller's; null for elements in order
};

constexpr Attribute kNoAttribute = {PFGS_OFF, nullptr, nullptr};
constexpr int kAttributes = PFGS_COORD3 + 1;

} // namespace

struct pfGeoSet
{
    int type;
    int number;   // of primitives, not negative
    int *lengths; // the caller's
    Attribute attributes[kAttributes];
    pfBox box;
    int boxMode;   // 0 when there is no box
    bool boxIsOld; // something that it depends on was set
};

constinit pfType pfGeoSetType = {"pfGeoSet", nullptr, nullptr};

namespace
{

bool isGiven(const char *function, const pfGeoSet *gset)
{
    return pfIsGiven(function, gset, pfGeoSetType);
}

// Whether a selector is in its range; a report when it is not.
bool isSelector(const char *function, const char *what, int selector, int first, int last)
{
    const bool known = selector >= first && selector <= last;
    if (!known)
    {
        fprintf(stderr, "%s: %d is not %s\n", function, selector, what);
    }
    return known;
}

bool isAttribute(const char *function, int attribute)
{
    return isSelector(function, "an attribute", attribute, 0, kAttributes - 1);
}

bool isBinding(const char *function, int attribute, int binding)
{
    if (attribute == PFGS_COORD3 && binding != PFGS_OFF)
    {
        return isSelector(function, "a binding of coordinates", binding, PFGS_PER_VERTEX, PFGS_PER_VERTEX);
    }
    return isSelector(function, "a binding", binding, PFGS_OFF, PFGS_PER_VERTEX);
}

// The attribute of a GeoSet; none, and a report, when either is not there.
const Attribute &attributeOf(const char *function, const pfGeoSet *gset, int attribute)
{
    return isGiven(function, gset) && isAttribute(function, attribute) ? gset->attributes[attribute] : kNoAttribute;
}

// 64 bits hold the sum of so many lengths as an int can count.
int64_t countVertices(const pfGeoSet &gset)
{
    constexpr int kLengths[] = {1, 2, 3, 4};
    if (gset.type < PFGS_LINESTRIPS)
    {
        return static_cast<int64_t>(gset.number) * kLengths[gset.type];
    }
    int64_t sum = 0;
    for (int i = 0; i < gset.number && gset.lengths != nullptr; ++i)
    {
        sum += std::max(gset.lengths[i], 0);
    }
    return sum;
}

// The comparisons are false for a NaN, so it changes nothing.
void extend(pfBox &box, const pfVec3 point)
{
    for (int axis = 0; axis < 3; ++axis)
    {
        box.min[axis] = point[axis] < box.min[axis] ? point[axis] : box.min[axis];
        box.max[axis] = point[axis] > box.max[axis] ? point[axis] : box.max[axis];
    }
}

pfBox computeBox(const pfGeoSet &gset)
{
    constexpr float kInfinity = std::numeric_limits<float>::infinity();
    pfBox box = {{kInfinity, kInfinity, kInfinity}, {-kInfinity, -kInfinity, -kInfinity}};
    const Attribute &coordinates = gset.attributes[PFGS_COORD3];
    const auto *points = static_cast<const pfVec3 *>(coordinates.elements);
    const bool any = points != nullptr && coordinates.binding != PFGS_OFF;
    const int64_t count = any ? countVertices(gset) : 0;
    for (int64_t i = 0; i < count; ++i)
    {
        extend(box, points[coordinates.indices != nullptr ? coordinates.indices[i] : i]);
    }
    for (int axis = 0; axis < 3; ++axis)
    {
        if (box.min[axis] > box.max[axis])
        {
            box.min[axis] = box.max[axis] = 0.0F;
        }
    }
    return box;
}

// The box is computed when it is read, not at once: of several changes the first ones leave a GeoSet whose number of
// vertices does not fit its lists.
void boxDependedOnThis(pfGeoSet &gset)
{
    gset.boxIsOld = gset.boxMode == PFBOUND_DYNAMIC;
}

} // namespace

pfGeoSet *pfNewGSet(void *arena)
{
    void *memory = pfMalloc(sizeof(pfGeoSet), arena);
    if (memory == nullptr)
    {
        return nullptr;
    }
    pfSetType(memory, pfGeoSetType);
    return new (memory) pfGeoSet{};
}

void pfGSetPrimType(pfGeoSet *gset, int type)
{
    if (isGiven(__func__, gset) && isSelector(__func__, "a kind of primitives", type, PFGS_POINTS, PFGS_POLYS))
    {
        gset->type = type;
        boxDependedOnThis(*gset);
    }
}

int pfGetGSetPrimType(const pfGeoSet *gset)
{
    return isGiven(__func__, gset) ? gset->type : 0;
}

void pfGSetNumPrims(pfGeoSet *gset, int number)
{
    if (isGiven(__func__, gset))
    {
        gset->number = std::max(number, 0);
        boxDependedOnThis(*gset);
    }
}

int pfGetGSetNumPrims(const pfGeoSet *gset)
{
    return isGiven(__func__, gset) ? gset->number : 0;
}

void pfGSetPrimLengths(pfGeoSet *gset, int *lengths)
{
    if (isGiven(__func__, gset))
    {
        gset->lengths = lengths;
        boxDependedOnThis(*gset);
    }
}

int *pfGetGSetPrimLengths(const pfGeoSet *gset)
{
    return isGiven(__func__, gset) ? gset->lengths : nullptr;
}

void pfGSetAttr(pfGeoSet *gset, int attribute, int binding, void *elements, unsigned short *indices)
{
    if (!isGiven(__func__, gset) || !isAttribute(__func__, attribute) || !isBinding(__func__, attribute, binding))
    {
        return;
    }
    gset->attributes[attribute] = {binding, elements, indices};
    if (attribute == PFGS_COORD3)
    {
        boxDependedOnThis(*gset);
    }
}

int pfGetGSetAttrBind(const pfGeoSet *gset, int attribute)
{
    return attributeOf(__func__, gset, attribute).binding;
}

void pfGetGSetAttrLists(const pfGeoSet *gset, int attribute, void **elements, unsigned short **indices)
{
    const Attribute &from = attributeOf(__func__, gset, attribute);
    if (elements != nullptr)
    {
        *elements = from.elements;
    }
    if (indices != nullptr)
    {
        *indices = from.indices;
    }
}

int pfGetGSetNumVertices(const pfGeoSet *gset)
{
    return isGiven(__func__, gset) ? static_cast<int>(std::min<int64_t>(countVertices(*gset), INT_MAX)) : 0;
}

void pfGSetBBox(pfGeoSet *gset, pfBox *box, int mode)
{
    if (isGiven(__func__, gset) && isSelector(__func__, "a mode", mode, PFBOUND_STATIC, PFBOUND_DYNAMIC))
    {
        gset->box = box != nullptr ? *box : computeBox(*gset);
        gset->boxMode = mode;
        gset->boxIsOld = false;
    }
}

int pfGetGSetBBox(pfGeoSet *gset, pfBox *box)
{
    if (!isGiven(__func__, gset) || gset->boxMode == 0)
    {
        return 0;
    }
    if (gset->boxIsOld)
    {
        gset->box = computeBox(*gset);
        gset->boxIsOld = false;
    }
    if (box != nullptr)
    {
        *box = gset->box;
    }
    return gset->boxMode;
}
