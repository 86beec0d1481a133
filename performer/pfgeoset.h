/*
 * GeoSets: primitives of one kind with their coordinates and other attributes. They keep what they are given, for a renderer
 * to use and for anybody to read back. Attribute and index lists stay the caller's: a GeoSet only points to them.
 * They must be whole while they are set: as long as the primitives, lengths and indices say, and readable in every process that
 * asks for a box of the GeoSet, or one above it, or intersects it, because whoever comes first reads them.
 *
 * A GeoSet is a block of pfNewGSet's arena, with the reference count of pfmemory.h: pfRef, pfUnref and pfDelete work on it.
 * No function takes a lock; pfnode.h tells who may do what at once. A null object, one that is no GeoSet, or a selector that
 * is not named here, is reported on standard error and changes nothing; reading from it gives 0.
 */
#ifndef TOLVIN_PERFORMER_PFGEOSET_H
#define TOLVIN_PERFORMER_PFGEOSET_H

#include "pfgstate.h"
#include "pfmath.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct pfGeoSet pfGeoSet;

/* Kinds of primitives. Those from PFGS_LINESTRIPS on have a length each, pfGSetPrimLengths. */
enum
{
    PFGS_POINTS,
    PFGS_LINES,
    PFGS_TRIS,
    PFGS_QUADS,
    PFGS_LINESTRIPS,
    PFGS_TRISTRIPS,
    PFGS_TRIFANS,
    PFGS_POLYS
};

/* Attributes, and the type of their elements. */
enum
{
    PFGS_COLOR4,    /* float[4] */
    PFGS_NORMAL3,   /* pfVec3 */
    PFGS_TEXCOORD2, /* float[2] */
    PFGS_COORD3     /* pfVec3 */
};

/* What has an element of an attribute of its own. Coordinates always have one per vertex: PFGS_OFF or PFGS_PER_VERTEX. */
enum
{
    PFGS_OFF,
    PFGS_OVERALL,
    PFGS_PER_PRIM,
    PFGS_PER_VERTEX
};

/* Modes of pfGSetBBox. */
#define PFBOUND_STATIC 1  /* the box stays as it is */
#define PFBOUND_DYNAMIC 2 /* it is computed anew when it is read after anything that it depends on was set */

/*
 * A new GeoSet in the arena, or on the heap of the process for null: PFGS_POINTS, no primitives, all attributes off, no box.
 * Null when there is no room, silently.
 */
PF_API pfGeoSet *pfNewGSet(void *arena);

PF_API void pfGSetPrimType(pfGeoSet *gset, int type);
PF_API int pfGetGSetPrimType(const pfGeoSet *gset);

/* How many primitives there are; a negative number counts as 0. */
PF_API void pfGSetNumPrims(pfGeoSet *gset, int number);
PF_API int pfGetGSetNumPrims(const pfGeoSet *gset);

/* The number of vertices of each primitive, one for each; the caller's. Negative ones count as 0, null as all of them 0. */
PF_API void pfGSetPrimLengths(pfGeoSet *gset, int *lengths);
PF_API int *pfGetGSetPrimLengths(const pfGeoSet *gset);

/*
 * Set an attribute: what has elements of its own, the elements, and for each place which of them it takes; null indices take
 * them in order. PFGS_OFF needs neither.
 */
PF_API void pfGSetAttr(pfGeoSet *gset, int attribute, int binding, void *elements, unsigned short *indices);
PF_API int pfGetGSetAttrBind(const pfGeoSet *gset, int attribute);
/* Write elements and indices to where the pointers lead; each may be null. */
PF_API void pfGetGSetAttrLists(const pfGeoSet *gset, int attribute, void **elements, unsigned short **indices);

/* How it looks: a GeoState, to which the GeoSet holds a reference; null for none. The former one is given back, not deleted. */
PF_API void pfGSetGState(pfGeoSet *gset, pfGeoState *gstate);
PF_API pfGeoState *pfGetGSetGState(const pfGeoSet *gset);

/* How many vertices all primitives have together; INT_MAX when it is more. */
PF_API int pfGetGSetNumVertices(const pfGeoSet *gset);

/*
 * Set the box and its mode. A null box is computed from the coordinates of all vertices, with 0 on an axis where none has a
 * number: the lists are read, as far as type, number of primitives, lengths and indices tell. Since they may have been changed
 * in place, the boxes of nodes and the hierarchy for intersection are then made anew when they are needed, as after pfGSetAttr.
 */
PF_API void pfGSetBBox(pfGeoSet *gset, pfBox *box, int mode);

/*
 * Write the box, unless the pointer is null; returns its mode, 0 where none was set (the box is not written then). Reads the
 * lists as pfGSetBBox does when PFBOUND_DYNAMIC asks for it, and then changes the GeoSet.
 */
PF_API int pfGetGSetBBox(pfGeoSet *gset, pfBox *box);

#ifdef __cplusplus
}
#endif

#endif
