/*
 * Vertex arrays, which hold each vertex once, and lists of indices into them.
 *
 *   VertexArray                         vuIndexList
 *   maxVertices  numVertices  vertices  maxIndices  numIndices  indices
 *                                 |                                |
 *                                 v                                v
 *                       [ 0 ][ 1 ][ - ][ 3 ][null]...      [3][0][1][-1]...
 *                         |    |    ^    |
 *                         v    v  hole   v
 *                       Vertex Vertex  Vertex
 *
 * An array owns the vertices that it took; deleting one leaves a hole, and gives the vertex back. All memory is malloc's.
 * Misuse is reported on standard error (module vuDB/vuVertex) and changes nothing.
 */
#ifndef TOLVIN_VUDB_VUVERTEX_H
#define TOLVIN_VUDB_VUVERTEX_H

#include "../kernel/kernelapi.h"

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct Vertex
{
    float x;
    float y;
    float z;
} Vertex;

typedef struct VertexArray
{
    int maxVertices;   /* slots */
    int numVertices;   /* slots in use, holes among them */
    Vertex **vertices; /* null in holes, and in slots that are not in use */
} VertexArray;

typedef struct vuIndexList
{
    int maxIndices; /* entries there is room for */
    int numIndices; /* entries in use */
    int *indices;   /* -1 in those that are not */
} vuIndexList;

/* A new vertex, the caller's until an array takes it; released with free. Null when memory runs out. */
TOLVIN_API Vertex *createVertex(float x, float y, float z);

/* A coordinate; of a null vertex 0, with a report. */
TOLVIN_API float getVertexPoint3DfX(const Vertex *vertex);
TOLVIN_API float getVertexPoint3DfY(const Vertex *vertex);
TOLVIN_API float getVertexPoint3DfZ(const Vertex *vertex);

/* A new array with 100 null slots, released by freeVertexArray. Null when memory runs out, with a report. */
TOLVIN_API VertexArray *createVertexArray(void);

/*
 * Give the array addSize more slots, null ones. Returns the array; null, with a report, for a null one. A negative addSize is
 * reported and changes nothing; neither does want of memory, or of slot numbers, which is reported as well.
 */
TOLVIN_API VertexArray *growVertexArray(VertexArray *array, int addSize);

/* Release an array with the vertices in it. */
TOLVIN_API void freeVertexArray(VertexArray *array);

/* Whether the coordinates are equal as numbers: 1 or 0. 0 and -0 are, NaN equals nothing. 0, with a report, for a null vertex. */
TOLVIN_API int sameCoords(const Vertex *v1, const Vertex *v2);

/*
 * Find the first vertex of the array with the same coordinates, or append this one; a full array grows by 100 slots before.
 * Returns the index; numVertices tells whether the vertex was taken, and is the array's, or stays the caller's. -1 when there
 * is a null pointer, with a report, or no memory.
 *
 * The array is searched from its beginning, which takes time in proportion to it, and reports each hole it meets (as
 * sameCoords does).
 */
TOLVIN_API int addVertexToArray(VertexArray *array, Vertex *vertex);

/*
 * Addition: what a loop over addVertexToArray gives, for count vertices, in time in proportion to their number and that of
 * those in the array; holes are not reported.
 *
 * vertices  not the array's own block. Which of them are taken tells the array: vertices[i] was if the slot indices[i] holds
 *           that pointer. A pointer may occur twice, but for one with NaN: that would be taken twice, and released twice.
 * indices   written: the index of each vertex; -1 for a null one, with a report. From the first for which there is no memory
 *           on, all are -1, and nothing of them is taken. May be null.
 * Returns how many vertices were taken; -1, with a report, for a null array or null vertices with a count above 0. A count
 * of 0 or less does nothing.
 */
TOLVIN_API int addVerticesToArray(VertexArray *array, Vertex *const *vertices, int count, int *indices);

/*
 * The vertex in a slot; null for a hole, and for the index behind the last. Null, with a report, for any other index
 * outside, or a null array.
 */
TOLVIN_API Vertex *getIndexedVertex(const VertexArray *array, int index);

/* Make a hole of a slot, whose vertex is the caller's then. The index, below maxVertices, is reported where it is none. */
TOLVIN_API void deleteVertexFromArray(VertexArray *array, int index);

/* Print a line for each slot in use: its number, x, y and z; zeros and reports for a hole. */
TOLVIN_API void printVertexArray(FILE *file, const VertexArray *array);

/* A new list with 10 entries of -1, none of them in use; released by vuFreeIndexList. Null when memory runs out. */
TOLVIN_API vuIndexList *vuCreateIndexList(void);

/* Addition: release a list. Null is ignored. */
TOLVIN_API void vuFreeIndexList(vuIndexList *list);

/*
 * Give the list addSize more entries, of -1. Returns the list; null, with a report, for a null one. A negative addSize is
 * reported and changes nothing; neither does want of memory, or of entry numbers, which is reported as well.
 */
TOLVIN_API vuIndexList *vuGrowIndexList(vuIndexList *list, int addSize);

/* Append an index, any; a full list grows by 30 entries before. For want of memory nothing is appended. */
TOLVIN_API void vuAddIndexToList(vuIndexList *list, int index);

/* An entry; -1 for the number behind the last, and for negative ones; -1, with a report, beyond that or for a null list. */
TOLVIN_API int vuGetIndexFromList(const vuIndexList *list, int i);

/* Print a line for each entry. */
TOLVIN_API void vuPrintIndexList(FILE *stream, const vuIndexList *list);

#ifdef __cplusplus
}
#endif

#endif
