/*
 * Texture nodes: the name of an image file. They are groups, of type VUDB_GROUP: as children of groups, in no model's
 * array of textures, they have to be released by vudbTextureFree. Misuse is reported on standard error (module
 * vuDB/vudbTexture) and changes nothing.
 */
#ifndef TOLVIN_VUDB_VUDBTEXTURE_H
#define TOLVIN_VUDB_VUDBTEXTURE_H

#include "vudbGroup.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct vudbTexture
{
    vudbGroup group;
    char *fileName; /* the node's own, or null */
} vudbTexture;

/* As vudbGroupInit, with a copy of the file's name; a null one is reported and stays null. */
TOLVIN_API void vudbTextureInit(vudbTexture *node, const char *name, const char *fileName);

/* Release what the node owns. */
TOLVIN_API void vudbTextureFree(vudbTexture *texture);

#ifdef __cplusplus
}
#endif

#endif
