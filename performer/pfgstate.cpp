#include "pfgstate.h"

#include "pftype.hpp"

#include <cstdio>
#include <new>

namespace
{

constexpr int kAttributes = PFSTATE_TEXTURE + 1;
constexpr int kModes = PFSTATE_CULLFACE + 1;

// In the order of the attributes.
constexpr const pfType *kAttributeTypes[] = {&pfMaterialType, &pfMaterialType, &pfTextureType};

} // namespace

struct pfGeoState
{
    void *attributes[kAttributes]; // references
    int modes[kModes];
};

namespace
{

void releaseAttributes(void *object, pfDeletion &deletion)
{
    for (void *attribute : static_cast<pfGeoState *>(object)->attributes)
    {
        pfGiveBack(attribute, deletion);
    }
}

// Whether a selector is in its range; a report when it is not.
bool isSelector(const char *function, const char *what, int selector, int count)
{
    const bool known = selector >= 0 && selector < count;
    if (!known)
    {
        fprintf(stderr, "%s: %d is not %s of GeoStates\n", function, selector, what);
    }
    return known;
}

bool isAttribute(const char *function, const pfGeoState *gstate, int attribute)
{
    return pfIsGiven(function, gstate, pfGeoStateType) && isSelector(function, "an attribute", attribute, kAttributes);
}

bool isMode(const char *function, const pfGeoState *gstate, int mode)
{
    return pfIsGiven(function, gstate, pfGeoStateType) && isSelector(function, "a mode", mode, kModes);
}

} // namespace

constinit pfType pfGeoStateType = {"pfGeoState", nullptr, releaseAttributes};

pfGeoState *pfNewGState(void *arena)
{
    void *memory = pfMalloc(sizeof(pfGeoState), arena);
    if (memory == nullptr)
    {
        return nullptr;
    }
    pfSetType(memory, pfGeoStateType);
    pfGeoState *gstate = new (memory) pfGeoState{};
    gstate->modes[PFSTATE_ENLIGHTING] = 1;
    return gstate;
}

void pfGStateAttr(pfGeoState *gstate, int attribute, void *object)
{
    if (isAttribute(__func__, gstate, attribute) &&
        (object == nullptr || pfIsGiven(__func__, object, *kAttributeTypes[attribute])))
    {
        pfExchange(gstate->attributes[attribute], object);
    }
}

void *pfGetGStateAttr(const pfGeoState *gstate, int attribute)
{
    return isAttribute(__func__, gstate, attribute) ? gstate->attributes[attribute] : nullptr;
}

void pfGStateMode(pfGeoState *gstate, int mode, int value)
{
    if (isMode(__func__, gstate, mode))
    {
        gstate->modes[mode] = value;
    }
}

int pfGetGStateMode(const pfGeoState *gstate, int mode)
{
    return isMode(__func__, gstate, mode) ? gstate->modes[mode] : 0;
}
