/*
 * Intersection of segments with the GeoSets of a scene graph.
 *
 * Triangles, quads, strips, fans and polygons are hit, on both sides, edges and corners included; quads and polygons as the
 * fans of triangles that a renderer makes of them. Points and lines are not hit, nor are triangles without area or with a
 * corner that is not finite, nor ones whose plane the segment lies in. Matrices that cannot be inverted, within the rounding
 * of double precision, hide what is below them; their last columns count as 0, 0, 0, 1. A node that can be reached on several
 * ways is intersected on each. Nodes have all their children but switches (pfSwitchVal) and LODs (the first one).
 *
 * A first intersection builds a hierarchy of the triangles of each GeoSet that it comes to, in the arena of the GeoSet; where
 * there is no room for it, all triangles are tested, which takes time but gives the same hits, and room is sought again now and then. The
 * lists of a GeoSet are read only then: who changes them in place calls pfGSetAttr again. Nodes that may be deleted or edited by others meanwhile must be
 * guarded by the caller; several threads and processes may intersect the same graph at once.
 */
#ifndef TOLVIN_PERFORMER_PFISECT_H
#define TOLVIN_PERFORMER_PFISECT_H

#include "pfnode.h"

#ifdef __cplusplus
extern "C" {
#endif

#define PFIS_MAX_SEGS 32

typedef struct pfHit pfHit;

/*
 * From pos to pos + length dir, ends included. dir need not have length 1; distances along the segment are then in units of it.
 * With length 0, it is a point of that direction. One with a negative length, or a number that is not finite, hits nothing.
 */
typedef struct pfSeg
{
    pfVec3 pos;
    pfVec3 dir;
    float length;
} pfSeg;

/* Bits of pfSegSet.mode. */
#define PFTRAV_IS_PRIM 0x01    /* test primitives; nothing is hit without it */
#define PFTRAV_IS_NORM 0x08    /* the normal is wanted, too: PFQHIT_NORM */
#define PFTRAV_IS_NEAREST 0x10 /* only the nearest hit of each segment */

typedef struct pfSegSet
{
    int mode;
    void *userData; /* the caller's */
    pfSeg segs[PFIS_MAX_SEGS];
    unsigned int activeMask;  /* bit i: segment i is tested */
    unsigned int isectMask;   /* nodes whose PFTRAV_ISECT mask has no bit of it are left out, with all below them */
    void *bound;              /* not read; null */
    int (*discFunc)(pfHit *); /* or null: says what becomes of a hit, see PFTRAV_CONT */
} pfSegSet;

/*
 * What a discrimination callback returns: one of the first three, and any of the others added; more bits are ignored. It is
 * called for hits within what is left of their segment, ends included: segment after segment, GeoSet after GeoSet in the order
 * of the graph, in each of them nearest first. With PFTRAV_IS_NEAREST, a hit that is neither ignored nor farther than others
 * clips its segment by itself; of several at the same distance, the first one stays. The hit is the callback's for the call
 * only. It must not change the graph; an intersection that it starts is refused, with a report.
 */
#define PFTRAV_CONT 0      /* go on */
#define PFTRAV_PRUNE 1     /* nothing more of this GeoSet for this segment */
#define PFTRAV_TERM 2      /* end the whole intersection, for the segments to come, too */
#define PFTRAV_IS_IGNORE 4 /* the hit does not count */
#define PFTRAV_IS_CLIP_START                                                                                           \
    8 /* from here on, the segment begins at the hit: nearer ones do not count any more, those found before do */
#define PFTRAV_IS_CLIP_END 16 /* it ends at the hit, likewise */

/*
 * Intersect the active segments of a set with everything below a node, the node itself included.
 *
 * hits   hits[i] is set for each active segment i, and no other: an array of its hits, nearest first (those at the same
 *        distance in the order of the graph, then of the primitives), closed by a null pointer. The hits and arrays are this
 *        thread's and last until its next intersection; copy what is to be kept.
 * Returns how many segments were hit; 0, with a report, for null pointers and what is no node. hits[i] are empty arrays then,
 * unless there is no hits, or no segSet to tell which ones are active.
 * Hits for which memory runs out are left out, with a report: the farthest of the segment at hand, and those of later ones. So is, should it run out on
 * the way down, what is below.
 */
PF_API int pfNodeIsectSegs(pfNode *node, pfSegSet *segSet, pfHit **hits[]);

/* What to ask a hit for, and what dst points to. */
#define PFQHIT_SEGNUM 1   /* int: number of the segment */
#define PFQHIT_SEG 2      /* pfSeg: as given, in world coordinates */
#define PFQHIT_DISTANCE 3 /* float: along the segment, in units of its direction */
#define PFQHIT_POINT                                                                                                   \
    4 /* pfVec3: in coordinates of the GeoSet; from corners and weights in double precision, rounded once */
#define PFQHIT_NORM                                                                                                    \
    5 /* pfVec3: of length 1, of the triangle, counter-clockwise side, coordinates of the GeoSet; 0 without PFTRAV_IS_NORM */
#define PFQHIT_PRIM 6      /* int: number of the primitive in the GeoSet */
#define PFQHIT_TRI 7       /* pfVec3[3]: corners of the triangle, coordinates of the GeoSet */
#define PFQHIT_GSET 8      /* pfGeoSet * */
#define PFQHIT_GEODE 9     /* pfGeode * */
#define PFQHIT_USERDATA 10 /* void *: of the set */
#define PFQHIT_XFORM                                                                                                   \
    22 /* pfMatrix: from coordinates of the GeoSet to world coordinates, those of the top node's parents */

/* Write what is asked for. Returns 1; 0, with a report, for null pointers and other queries. */
PF_API int pfQueryHit(const pfHit *hit, unsigned int query, void *dst);

#ifdef __cplusplus
}
#endif

#endif
