/*
 * Groups: nodes with children, in the order added. All kinds of nodes but the plain one begin with a group.
 *
 * A group owns its array of children, not the children; a node may be a child of several groups. Adding a child does not
 * record the group as its parent: vudbNodeAddParent does. Misuse is reported on standard error (module vuDB/vudbGroup) and
 * changes nothing.
 *
 * What releases what, for all kinds of nodes:
 *
 *   vudbGroupFree, vudbFaceFree ...  what the node owns, but for the last four lines below; not the record, save that of an
 *                                    entity
 *   vudbGroupDeleteHierarchy         the same for a node and all below it; see there
 *   vudbGroupFreeHierarchy           all that the nodes own, whatever they are, and the records if wanted
 *
 *   the vertices of a model          vudbModelFreeAll
 *   textures of a model, their array vudbModelFreeAll
 *   the entries of a face's list     vudbFaceFreeAll
 *   records                          their owner, but for that of an entity
 */
#ifndef TOLVIN_VUDB_VUDBGROUP_H
#define TOLVIN_VUDB_VUDBGROUP_H

#include "vudbNode.h"

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct vudbGroup
{
    vudbNode node;
    int maxChildren;     /* slots of children; means nothing while that is null */
    int numChildren;     /* children held */
    vudbNode **children; /* null until there is one */
} vudbGroup;

/* Initialise a group: as vudbNodeInit, VUDB_GROUP, no children. */
TOLVIN_API void vudbGroupInit(vudbGroup *node, const char *name);

/* Release what the group owns. */
TOLVIN_API void vudbGroupFree(vudbGroup *node);

/* The array of children, the group's own; null where there are none, or for a null group. */
TOLVIN_API vudbNode **vudbGroupGetChildrenList(const vudbGroup *group);

/*
 * A child by number; null where there is none: with a report where there are no children at all, beyond the number behind the
 * last, and for a null group.
 */
TOLVIN_API vudbNode *vudbGroupGetIndexedChild(const vudbGroup *group, int index);

/*
 * Append a child, however often it is one already. Returns how many there are; -1 for want of memory, when it is not taken.
 * group must not be null; child may be, and vudbGroupAddChild reports a null pointer and returns -1.
 */
TOLVIN_API int vudbGroupInsertChild(vudbGroup *group, vudbNode *child);
TOLVIN_API int vudbGroupAddChild(vudbGroup *group, vudbNode *child);

/* How many children there are; -1 for a null group. */
TOLVIN_API int vudbGroupGetNumberOfChildren(const vudbGroup *group);

/*
 * Print a node, and all below it, each before its children: name, type, number of children, and the box of a model or the
 * name of the first parent of others ("none" where none is recorded). Plain nodes are reported instead; null children, too.
 */
TOLVIN_API void vudbGroupPrintHierarchy(FILE *stream, const vudbNode *node);

/*
 * Release a node and all below it, children first; those on several paths once. Groups, faces, switches, LODs, objects and
 * the textures of models are released as by their free functions, other textures as groups; records stay their owners'.
 * What these functions leave, vertices and entries of index lists, is out of reach afterwards. Of a model, the record of the vertex array (not the
 * vertices), the textures, their array and that of the children are released, and no more. The record of any other node
 * (scenes and entities among them) is released with free, and nothing that it owns. Plain nodes are reported instead, null
 * children, too. For want of memory to keep track, nothing is released, with a report. vudbGroupFreeHierarchy is the one that
 * leaves nothing behind.
 */
TOLVIN_API void vudbGroupDeleteHierarchy(vudbNode *node);

/*
 * Addition: release all that a node and the nodes below it own: names, boxes, arrays of parents and children, vertices,
 * textures, index lists, file names. Nodes on several paths are released once. The model that an entity shows is below it only
 * if it is a child, too. The file name of a texture is released if a model holds it: others cannot be told from groups, and
 * need vudbTextureFree, before or in freeRecord.
 *
 * freeRecord  called for the record of each node, textures of models among them, once the node and all below it were released
 *             and none of them is looked at any more; may be free's like. Null leaves the records to their owners.
 *
 * Null is ignored, as are null children. For want of memory to keep track, nothing is released, with a report.
 */
TOLVIN_API void vudbGroupFreeHierarchy(vudbNode *node, void (*freeRecord)(vudbNode *record));

#ifdef __cplusplus
}
#endif

#endif
