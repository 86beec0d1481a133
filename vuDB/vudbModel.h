/*
 * Models: the vertices and textures of one model file, and below it what uses them. Nothing here reads files. Misuse is
 * reported on standard error (module vuDB/vudbModel) and changes nothing.
 */
#ifndef TOLVIN_VUDB_VUDBMODEL_H
#define TOLVIN_VUDB_VUDBMODEL_H

#include "vudbGroup.h"
#include "vudbTexture.h"

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct vudbModel
{
    vudbGroup group;
    char *vudbm_file;               /* name of the model's file, its own; or null */
    VertexArray *vudbm_vertexArray; /* vertices, each once; null until there are any */
    vudbTexture **vudbm_textures;   /* in the order added; null until there is one */
    int vudbm_numTextures;          /* textures held */
    int vudbm_maxTextures;          /* slots of vudbm_textures */
} vudbModel;

/* As vudbGroupInit, VUDB_MODEL, with a copy of the file's name (a null one is reported and stays null); nothing else. */
TOLVIN_API void vudbModelInit(vudbModel *node, const char *name, const char *file);

/*
 * Release the file's name, the record of the vertex array and what the group owns: not the vertices and their slots, not the
 * textures and their array. vudbModelFreeAll releases these, too.
 */
TOLVIN_API void vudbModelFree(vudbModel *model);

/* Addition: release all that the model owns: as above, and the vertices, and what the textures own; not their records. */
TOLVIN_API void vudbModelFreeAll(vudbModel *model);

/*
 * Change the file's name to a copy of the given one, which may be the model's own or a part of it. That it had one is
 * reported: what the model holds stays. Returns the new name, null for a null one, with a report, which takes the old one
 * away; null also for want of memory, when the old one stays, and for a null model.
 */
TOLVIN_API const char *vudbModelSetFile(vudbModel *model, const char *file);
TOLVIN_API const char *vudbModelGetFile(const vudbModel *model);

/*
 * Give the model a new vertex array, in the place of the one it has, which becomes the caller's. Returns 1; -1 for a null
 * model, and for want of memory, when nothing changes.
 */
TOLVIN_API int vudbModelCreateVertexArray(vudbModel *model);

/* The vertex array, the model's own, or null. */
TOLVIN_API VertexArray *vudbModelGetVertexArray(const vudbModel *model);

/* As addVertexToArray. A model without a vertex array gets one, with a report. */
TOLVIN_API int vudbModelAddVertexToArray(vudbModel *model, Vertex *vertex);

/* Addition: as addVerticesToArray. A model without a vertex array gets one, with a report. */
TOLVIN_API int vudbModelAddVerticesToArray(vudbModel *model, Vertex *const *vertices, int count, int *indices);

/* As getIndexedVertex. */
TOLVIN_API Vertex *vudbModelGetIndexedVertex(const vudbModel *model, int index);

/*
 * Give the model a new array of 20 slots for textures, in the place of the one it has, which becomes the caller's. Returns 1;
 * 0 for a null model, with a report, and for want of memory, when there is no array then.
 */
TOLVIN_API int vudbModelCreateTextureArray(vudbModel *model);

/*
 * Append a texture, which is the model's to release from then on, but for its record. The array is made, or grows by 20, as
 * need be. For want of memory it is not taken.
 */
TOLVIN_API void vudbModelAddTextureToArray(vudbModel *model, vudbTexture *texture);

/* How many textures there are; 0 for a null model. */
TOLVIN_API int vudbModelGetNumberOfTextures(const vudbModel *model);

/* A texture by number; null where there is none: beyond the number behind the last, and for a null model, with a report. */
TOLVIN_API vudbTexture *vudbModelGetIndexedTextureNode(const vudbModel *model, int index);

/* The array of textures, the model's own, or null. */
TOLVIN_API vudbTexture **vudbModelGetTextureArray(const vudbModel *model);

/* Print "Object: " and the name of every object node among a node and all below it, each before its children. */
TOLVIN_API void vudbModelPrintAllObjects(FILE *stream, const vudbNode *node);

#ifdef __cplusplus
}
#endif

#endif
