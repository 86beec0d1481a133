/*
 * Scene-graph nodes of the platform layer: groups with children, and geodes with GeoSets.
 *
 * A node is a block of the arena it was made in, with the reference count of pfmemory.h. A group holds a reference to each
 * of its children, a geode to each of its GeoSets. pfDelete of a node that nobody holds gives these references back, and
 * deletes, in the same way, what nobody holds then; pfFree would not. A node may be in several groups, but never below itself.
 *
 * No function takes a lock. A null object, or one of another type than the function wants, is reported on standard error and
 * changes nothing; results are then 0, null, or as said.
 */
#ifndef TOLVIN_PERFORMER_PFNODE_H
#define TOLVIN_PERFORMER_PFNODE_H

#include "pfgeoset.h"
#include "pfmemory.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A type of objects. Types have parents: a group is a node. */
typedef struct pfType pfType;

typedef struct pfNode pfNode;
typedef struct pfGroup pfGroup;
typedef struct pfGeode pfGeode;

PF_API pfType *pfGetNodeClassType(void);
PF_API pfType *pfGetGroupClassType(void);
PF_API pfType *pfGetGeodeClassType(void);

/* Whether an object is of a type, or of one that has it as parent, at whatever distance: 1 or 0. Silent for null. */
PF_API int pfIsOfType(const void *object, pfType *type);

/* New nodes in the arena, or on the heap of the process for null. Null when there is no room, silently. */
PF_API pfGroup *pfNewGroup(void *arena);
PF_API pfGeode *pfNewGeode(void *arena);

/*
 * Append a child. Returns 1; 0 when there is no room for it, or it is the group itself or above it (reported).
 * A group can be handed over as the pfNode it is, after a cast.
 */
PF_API int pfAddChild(pfGroup *group, pfNode *child);

/* Take out the first occurrence of a child, which is not deleted. Returns 1; 0 when it is no child. */
PF_API int pfRemoveChild(pfGroup *group, pfNode *child);

PF_API int pfGetNumChildren(const pfGroup *group);
/* A child by number; null, with a report, where there is none. */
PF_API pfNode *pfGetChild(const pfGroup *group, int index);

/* The same for the GeoSets of a geode. */
PF_API int pfAddGSet(pfGeode *geode, pfGeoSet *gset);
PF_API int pfRemoveGSet(pfGeode *geode, pfGeoSet *gset);
PF_API int pfGetNumGSets(const pfGeode *geode);
PF_API pfGeoSet *pfGetGSet(const pfGeode *geode, int index);

#ifdef __cplusplus
}
#endif

#endif
