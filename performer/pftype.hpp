// Types of objects, private to the platform layer.
//
// A block that is a typed object points to its type, in the image of this library: processes that share blocks are
// forked from one image, with its types at the same addresses.
#pragma once

#include "pfmemory.h"

#include <cstdio>

// One run of pfDelete, with the objects that it has still to delete.
struct pfDeletion;

struct pfType
{
    const char *name;
    const pfType *parent; // null for none

    // Gives back what an object holds besides what its parent types know of: references with pfGiveBack, blocks of its
    // own with pfFree. Called once, when the object is deleted; no lock is held. Null when there is nothing to do.
    void (*release)(void *object, pfDeletion &deletion);
};

// The types of pfgeoset.cpp, pfgstate.cpp, pfmaterial.cpp and pftexture.cpp.
extern pfType pfGeoSetType;
extern pfType pfGeoStateType;
extern pfType pfMaterialType;
extern pfType pfTextureType;

// In pfmemory.cpp: make a new block an object of a type, before anybody else knows it.
void pfSetType(void *block, const pfType &type);

// In pfmemory.cpp: the type of an object, one named "plain block" for blocks that are none. Null for null, and for no
// live block, which is reported.
const pfType *pfTypeOf(const char *function, const void *object);

// In pfmemory.cpp, for pfType::release: take a reference away and leave the object to the deletion if it was the last.
void pfGiveBack(void *object, pfDeletion &deletion);

// Put an object, or null, in the place of another: the place holds a reference. An object that is no live block is reported
// and changes nothing. In between it is rather held once too often than once too little.
template<typename Object>
void pfExchange(Object *&place, Object *object)
{
    if (object != nullptr && pfRef(object) < 0)
    {
        return;
    }
    Object *const old = place;
    place = object;
    if (old != nullptr)
    {
        pfUnref(old);
    }
}

// Whether a type is another or below it.
inline bool pfIsBelow(const pfType *type, const pfType *other)
{
    while (type != nullptr && type != other)
    {
        type = type->parent;
    }
    return type != nullptr;
}

// Whether the object given to a function is of the type that it wants; a report when it is not.
inline bool pfIsGiven(const char *function, const void *object, const pfType &wanted)
{
    if (object == nullptr)
    {
        fprintf(stderr, "%s: no %s\n", function, wanted.name);
        return false;
    }
    const pfType *type = pfTypeOf(function, object);
    const bool given = pfIsBelow(type, &wanted);
    if (type != nullptr && !given)
    {
        fprintf(stderr, "%s: %p is a %s, not a %s\n", function, object, type->name, wanted.name);
    }
    return given;
}
