/*
 * GeoStates: how GeoSets look. They keep what they are given, for a renderer to use. A GeoState is a block of pfNewGState's
 * arena with the reference count of pfmemory.h, and holds a reference to its materials and texture. No function takes a lock.
 * A null object, one that is no GeoState, or a selector that is not named here, is reported on standard error and changes
 * nothing; reading from it gives 0.
 */
#ifndef TOLVIN_PERFORMER_PFGSTATE_H
#define TOLVIN_PERFORMER_PFGSTATE_H

#include "pfmaterial.h"
#include "pftexture.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct pfGeoState pfGeoState;

/* What pfGStateAttr sets. */
enum
{
    PFSTATE_FRONTMTL, /* pfMaterial */
    PFSTATE_BACKMTL,  /* pfMaterial */
    PFSTATE_TEXTURE   /* pfTexture */
};

/* What pfGStateMode sets, and the values. */
enum
{
    PFSTATE_ENLIGHTING,   /* 0 or 1, default 1 */
    PFSTATE_ENTEXTURE,    /* 0 or 1, default 0 */
    PFSTATE_TRANSPARENCY, /* 0 or 1, default 0 */
    PFSTATE_CULLFACE      /* PFCF_*, default PFCF_OFF */
};

enum
{
    PFCF_OFF,
    PFCF_BACK,
    PFCF_FRONT,
    PFCF_BOTH
};

/* A new GeoState without materials and texture. Null when there is no room, silently. */
PF_API pfGeoState *pfNewGState(void *arena);

/* Set or, with null, take away; an object of another type is reported and changes nothing. The reference to what was there before is given back; that is not deleted. */
PF_API void pfGStateAttr(pfGeoState *gstate, int attribute, void *object);
PF_API void *pfGetGStateAttr(const pfGeoState *gstate, int attribute);

/* Any value is kept. */
PF_API void pfGStateMode(pfGeoState *gstate, int mode, int value);
PF_API int pfGetGStateMode(const pfGeoState *gstate, int mode);

#ifdef __cplusplus
}
#endif

#endif
