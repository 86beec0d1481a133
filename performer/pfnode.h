/*
 * Scene-graph nodes of the platform layer: groups with children, and geodes with GeoSets. Other kinds of groups have headers
 * of their own: pftransform.h, pfswitch.h.
 *
 * A node is a block of the arena it was made in, with the reference count of pfmemory.h. A group holds a reference to each
 * of its children, a geode to each of its GeoSets. pfDelete of a node that nobody holds gives these references back, and
 * deletes, in the same way, what nobody holds then; pfFree would not, and leaves dangling pointers in what was linked to the
 * node. A node may be in several groups, but never below itself. Every node knows its parents, and keeps a box round all that
 * is below it.
 *
 * No function takes a lock. Several threads and processes may read a graph at once, and may delete at once what shares nodes
 * or GeoSets; who edits needs to be alone with what he edits, which includes what he puts in or takes out, and with all above
 * it. A process that is killed while it edits leaves a graph that can be used, edited and deleted, perhaps without some children
 * of the group that it was editing. A null object, or one of another type than the function wants, is reported on standard error and
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
typedef struct pfScene pfScene; /* a group: the top of what is drawn */

PF_API pfType *pfGetNodeClassType(void);
PF_API pfType *pfGetGroupClassType(void);
PF_API pfType *pfGetGeodeClassType(void);
PF_API pfType *pfGetSceneClassType(void);

/* Whether an object is of a type, or of one that has it as parent, at whatever distance: 1 or 0. Silent for null. */
PF_API int pfIsOfType(const void *object, pfType *type);

/* The type of an object itself, and the name of a type, "pfGroup" for one. Null for null. */
PF_API pfType *pfGetType(const void *object);
PF_API const char *pfGetTypeName(const pfType *type);

/* New nodes in the arena, or on the heap of the process for null. Null when there is no room, silently. */
PF_API pfGroup *pfNewGroup(void *arena);
PF_API pfGeode *pfNewGeode(void *arena);
PF_API pfScene *pfNewScene(void *arena);

/* Name a node: a copy of the text, in the arena of the node; null for none. Returns 1; 0 when there is no room for it. */
PF_API int pfNodeName(pfNode *node, const char *name);
/* The node's own text, or null. */
PF_API const char *pfGetNodeName(const pfNode *node);

/*
 * Append a child. Returns 1; 0 when there is no room for it, or it is the group itself or above it (reported).
 * A node of any kind can be handed over as the pfNode, and one of any kind of group as the pfGroup, that it is, after a cast.
 */
PF_API int pfAddChild(pfGroup *group, pfNode *child);

/* Put a child before the one of that number; the number of children appends it. Returns as pfAddChild; 0, with a report, elsewhere. */
PF_API int pfInsertChild(pfGroup *group, int index, pfNode *child);

/* Put a child in the place of another, of which the first occurrence goes. Returns as pfAddChild; 0 when old is no child. */
PF_API int pfReplaceChild(pfGroup *group, pfNode *old, pfNode *child);

/* Take out the first occurrence of a child, which is not deleted. Returns 1; 0 when it is no child. */
PF_API int pfRemoveChild(pfGroup *group, pfNode *child);

/* The number of the first occurrence of a child; -1 when it is none. */
PF_API int pfSearchChild(const pfGroup *group, const pfNode *child);

PF_API int pfGetNumChildren(const pfGroup *group);
/* A child by number; null, with a report, where there is none. */
PF_API pfNode *pfGetChild(const pfGroup *group, int index);

/* The groups that a node is in, as often as it is in them, in no fixed order. */
PF_API int pfGetNumParents(const pfNode *node);
/* A parent by number; null, with a report, where there is none. */
PF_API pfGroup *pfGetParent(const pfNode *node, int index);

/* The same for the GeoSets of a geode. */
PF_API int pfAddGSet(pfGeode *geode, pfGeoSet *gset);
PF_API int pfRemoveGSet(pfGeode *geode, pfGeoSet *gset);
PF_API int pfGetNumGSets(const pfGeode *geode);
PF_API pfGeoSet *pfGetGSet(const pfGeode *geode, int index);

/* Traversals that have a mask of their own in each node. */
enum
{
    PFTRAV_ISECT, /* pfNodeIsectSegs */
    PFTRAV_APP,
    PFTRAV_CULL,
    PFTRAV_DRAW
};

/* Modes of pfNodeTravMask: which nodes, one bit or both. */
#define PFTRAV_SELF 0x10
#define PFTRAV_DESCEND 0x20 /* all nodes below it, each once */

/* What pfNodeTravMask does with the bits. */
#define PF_SET 1 /* the mask becomes these */
#define PF_AND 2
#define PF_OR 3

/*
 * Change the mask of one traversal. Other traversals, modes and operations are reported, and so is PFTRAV_DESCEND without
 * memory to go through the nodes: nothing changes then. A node, and what is below it, takes part where its mask and that of the traversal have a
 * bit in common; new nodes have all bits.
 */
PF_API void pfNodeTravMask(pfNode *node, int which, unsigned int mask, int setMode, int bitOp);
PF_API unsigned int pfGetNodeTravMask(const pfNode *node, int which);

/*
 * Write the box of a node, in the coordinates of its parents (that is, with its own matrix applied): round all coordinates
 * of all GeoSets and children below it, whatever masks and switches say. Returns 1; 0, and writes nothing, when there is
 * nothing below it. It is kept until something below changes: with the children, the GeoSets or a matrix by itself, with
 * what a GeoSet has when that is set anew (pfGSetAttr and others). Below SCS and DCS it is larger by some roundings; coordinates
 * and matrices that are not finite make it infinite. box may be null.
 */
PF_API int pfGetNodeBBox(pfNode *node, pfBox *box);

#ifdef __cplusplus
}
#endif

#endif
