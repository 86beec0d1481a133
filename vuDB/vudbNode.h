/*
 * The base of all nodes of the scene database: type, name, bounding box and parents.
 *
 * The records of all other kinds begin with a vudbNode, so a pointer to any node is one to its vudbNode. Records are their
 * owner's; name, box and array of parents are the node's, from malloc, and vudbNodeFree releases them. A record is raw memory
 * before its initialiser, and after its free function.
 *
 * Misuse is reported on standard error (module vuDB/vudbNode) and changes nothing. Lengths are those of the vertices. Want of
 * memory is silent: it shows in what is missing, a name, a box, a higher count. Hierarchies must have no circles.
 */
#ifndef TOLVIN_VUDB_VUDBNODE_H
#define TOLVIN_VUDB_VUDBNODE_H

#include "../geometry/vumatrix.h"
#include "../kernel/kernelapi.h"
#include "../performer/pfnode.h"
#include "vuVertex.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef enum vudbNodeType
{
    VUDB_UNKNOWN,
    VUDB_NODE,
    VUDB_GROUP,
    VUDB_SCENE,
    VUDB_MODEL,
    VUDB_FACE,
    VUDB_ENTITYDCS,
    VUDB_ENTITYSCS,
    VUDB_BILLBOARD,
    VUDB_SWITCH,
    VUDB_LOD,
    VUDB_SEQUENCE,
    VUDB_DCS, /* vudbObject has this type */
    VUDB_SCS,
    VUDB_GEODE,
    VUDB_LAYER,
    VUDB_LIGHTPOINT,
    VUDB_LIGHTSOURCE,
    VUDB_MORPH,
    VUDB_PARTITION,
    VUDB_TEXT,
    VUDB_TEXTURE,
    VUDB_END /* how many there are */
} vudbNodeType;

/* The names of the types, as above: vudbNodeTypeNames[VUDB_LOD] is "VUDB_LOD". */
TOLVIN_API extern const char *const vudbNodeTypeNames[VUDB_END + 1];

typedef struct vudbBoundingBox
{
    float xmin;
    float xmax;
    float ymin;
    float ymax;
    float zmin;
    float zmax;
    int initialized; /* whether vudbNodeRecalcBoundingBox has put a box in, so that the next extends it */
} vudbBoundingBox;

typedef struct vudbNode
{
    int type;
    char *name;                /* or null */
    vudbBoundingBox *bbox;     /* null until there is one */
    int maxParents;            /* slots of parents; means nothing while that is null */
    int numParents;            /* parents recorded */
    struct vudbNode **parents; /* in the order added; null until there is one */
} vudbNode;

/* Initialise a node: VUDB_NODE, a copy of the name (a null one is reported and stays null), no box, no parents. */
TOLVIN_API void vudbNodeInit(vudbNode *node, const char *name);

/* Release what the node owns. The type is VUDB_UNKNOWN then. */
TOLVIN_API void vudbNodeFree(vudbNode *node);

/* Set the type, any number, and return it; 0 for a null node. */
TOLVIN_API int vudbNodeSetType(vudbNode *node, int type);
/* node must not be null. */
TOLVIN_API int vudbNodeGetType(const vudbNode *node);

/*
 * Change the name to a copy of the given one, which may be the node's own or a part of it. Returns the name that the node has
 * then: the old one, with a report, for a null name, and for want of memory. Null for a null node.
 */
TOLVIN_API const char *vudbNodeSetName(vudbNode *node, const char *name);
/* The name, the node's own, or null. node must not be null. */
TOLVIN_API const char *vudbNodeGetName(const vudbNode *node);

/*
 * Set the box to that of the vertices of an array; an extent of 0 along x or y becomes 0.1. Holes are left out. A null array,
 * or one without any vertex, changes nothing. The first coordinate is taken as it is, from then on NaN changes nothing.
 */
TOLVIN_API void vudbNodeCalculateBoundingBox(vudbNode *node, const VertexArray *array);

/*
 * Put a box (xmin, xmax, ymin, ymax, zmin, zmax) into the node's: copied the first time, from then on the node's is extended.
 * Then the node's box goes the same way into its first parent, and so on up to a node without parents. Parents must not go
 * in a circle. box must not be null.
 */
TOLVIN_API void vudbNodeRecalcBoundingBox(vudbNode *node, const float box[6]);

/* Set the box; the next vudbNodeRecalcBoundingBox replaces it if there was none before. */
TOLVIN_API void vudbNodeSetBoundingBox(vudbNode *node, float xmin, float xmax, float ymin, float ymax, float zmin,
                                       float zmax);

/* The box, the node's own; null where there is none. */
TOLVIN_API vudbBoundingBox *vudbNodeGetBoundingBox(const vudbNode *node);

/* An extent of the box; 0 without one. */
TOLVIN_API float vudbNodeGetBoundingBoxXmin(const vudbNode *node);
TOLVIN_API float vudbNodeGetBoundingBoxXmax(const vudbNode *node);
TOLVIN_API float vudbNodeGetBoundingBoxYmin(const vudbNode *node);
TOLVIN_API float vudbNodeGetBoundingBoxYmax(const vudbNode *node);
TOLVIN_API float vudbNodeGetBoundingBoxZmin(const vudbNode *node);
TOLVIN_API float vudbNodeGetBoundingBoxZmax(const vudbNode *node);

/*
 * Set the box to that of its corners c transformed: c orientMat posMat; or, with fixedRotation not 0, turned by -180 degrees
 * about y and then by -90 about z, whatever the matrices hold. No box counts as one of size 0 at the origin. posMat is
 * overwritten with the product for the last corner. No argument may be null.
 */
TOLVIN_API void vudbNodeTransformBoundingBox(vudbNode *node, vuMatrix posMat, const vuMatrix orientMat,
                                             int fixedRotation);

/* The array of parents, the node's own; null where there are none. */
TOLVIN_API vudbNode **vudbNodeGetParentList(const vudbNode *node);

/* A parent by number; null where there is none: beyond the number behind the last with a report. */
TOLVIN_API vudbNode *vudbNodeGetIndexedParent(const vudbNode *node, int index);

/*
 * Record a parent, which stays its owner's, however often it is recorded already. Groups do not do so by themselves. Returns
 * how many there are; -1 for a null pointer, with a report, and for want of memory.
 */
TOLVIN_API int vudbNodeAddParent(vudbNode *node, vudbNode *parent);

/* How many parents are recorded; -1 for a null node. */
TOLVIN_API int vudbNodeGetNumberOfParents(const vudbNode *node);

/*
 * Set the box to that of the GeoSets below a node of the platform layer, in groups and geodes; without any, nothing changes.
 * Transformations on the way are not applied. pfnode must not be null.
 */
TOLVIN_API void vudbNodeCalculateBoundingBoxFromPfNode(vudbNode *node, pfNode *pfnode);

#ifdef __cplusplus
}
#endif

#endif
