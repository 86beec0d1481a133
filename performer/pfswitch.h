/*
 * Groups of which some children count: switches, by choice, and LODs, by distance from the eye. Points must not be
 * null. As in pfnode.h otherwise.
 */
#ifndef TOLVIN_PERFORMER_PFSWITCH_H
#define TOLVIN_PERFORMER_PFSWITCH_H

#include "pfnode.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct pfSwitch pfSwitch;
typedef struct pfLOD pfLOD;

PF_API pfType *pfGetSwitchClassType(void);
PF_API pfType *pfGetLODClassType(void);

/* A new switch with value PFSWITCH_OFF; a new LOD without distances, at the origin. Null when there is no room, silently. */
PF_API pfSwitch *pfNewSwitch(void *arena);
PF_API pfLOD *pfNewLOD(void *arena);

/* Values of a switch besides the number of the one child that counts; numbers without child count as PFSWITCH_OFF. */
#define PFSWITCH_ON (-1) /* all children */
#define PFSWITCH_OFF (-2)

/* Returns 1; 0, with a report, for a value below PFSWITCH_OFF. */
PF_API int pfSwitchVal(pfSwitch *node, int value);
PF_API int pfGetSwitchVal(const pfSwitch *node);

/*
 * Distances of a LOD: child i counts for eyes from range i up to, but not including, range i + 1. There is one range more than
 * children. Sets range number index; those before it that were not set are 0. Returns 1; 0 for an index below 0 or from
 * PFLOD_MAX_RANGES on, with a report, and when there is no room. Ranges that were never set read as 0.
 */
#define PFLOD_MAX_RANGES 65536
PF_API int pfLODRange(pfLOD *lod, int index, float range);
PF_API float pfGetLODRange(const pfLOD *lod, int index);
PF_API int pfGetLODNumRanges(const pfLOD *lod);

/* The point, in coordinates of the LOD, whose distance from the eye counts. */
PF_API void pfLODCenter(pfLOD *lod, const pfVec3 center);
PF_API void pfGetLODCenter(const pfLOD *lod, pfVec3 center);

/* The child for an eye (in coordinates of the LOD), -1 for none. Intersection always takes the first child: the finest one. */
PF_API int pfLODChildAt(const pfLOD *lod, const pfVec3 eye);

#ifdef __cplusplus
}
#endif

#endif
