/*
 * Faces: corners, as indices into the vertices of a model, a texture of the model and a drawing mode. Nothing checks the
 * indices. Misuse is reported on standard error (module vuDB/vudbFace) and changes nothing.
 */
#ifndef TOLVIN_VUDB_VUDBFACE_H
#define TOLVIN_VUDB_VUDBFACE_H

#include "vudbGroup.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct vudbFace
{
    vudbGroup group;
    vuIndexList *vertexIndexList; /* in order around the face; null until there is one */
    int textureIndex;             /* among the model's textures; -1 for none */
    int drawingMode;              /* the application's, 0 or more */
} vudbFace;

/* As vudbGroupInit, VUDB_FACE, no corners, no texture, drawing mode 1. */
TOLVIN_API void vudbFaceInit(vudbFace *node, const char *name);

/* Release what the group owns and the record of the index list; not its entries, as vudbFaceFreeAll does, too. */
TOLVIN_API void vudbFaceFree(vudbFace *face);

/* Addition: release all that the face owns. */
TOLVIN_API void vudbFaceFreeAll(vudbFace *face);

/* Give the face a new index list, in the place of the one it has, which becomes the caller's. */
TOLVIN_API void vudbFaceCreateVertexIndexList(vudbFace *face);

/* The index list, the face's own, or null. */
TOLVIN_API vuIndexList *vudbFaceGetVertexIndexList(const vudbFace *face);

/* As vuAddIndexToList and vuGetIndexFromList, which report that there is no list. */
TOLVIN_API void vudbFaceAddVertexIndexToList(vudbFace *face, int index);
TOLVIN_API int vudbFaceGetVertexIndexFromList(const vudbFace *face, int i);

/* Any index; -1 for a null face. */
TOLVIN_API void vudbFaceSetTextureIndex(vudbFace *face, int index);
TOLVIN_API int vudbFaceGetTextureIndex(const vudbFace *face);

/* A negative mode changes nothing. -1 for a null face. */
TOLVIN_API void vudbFaceSetDrawingMode(vudbFace *face, int mode);
TOLVIN_API int vudbFaceGetDrawingMode(const vudbFace *face);

#ifdef __cplusplus
}
#endif

#endif
