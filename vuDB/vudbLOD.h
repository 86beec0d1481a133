/* Levels of detail. Misuse is reported on standard error (module vuDB/vudbLOD) and changes nothing. */
#ifndef TOLVIN_VUDB_VUDBLOD_H
#define TOLVIN_VUDB_VUDBLOD_H

#include "vudbGroup.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Distances from the viewer, in the units of the scene; the application's, nothing here looks at them. */
typedef struct vudbLOD
{
    vudbGroup group;
    float inDistance;
    float outDistance;
} vudbLOD;

/* As vudbGroupInit, VUDB_LOD, both distances 0. */
TOLVIN_API void vudbLODInit(vudbLOD *node, const char *name);

/* As vudbGroupFree; both distances are 0 then. */
TOLVIN_API void vudbLODFree(vudbLOD *node);

/* Any distance is kept. */
TOLVIN_API void vudbLODSetInDistance(vudbLOD *node, float distance);
TOLVIN_API void vudbLODSetOutDistance(vudbLOD *node, float distance);

#ifdef __cplusplus
}
#endif

#endif
