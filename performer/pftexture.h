/*
 * Textures of the platform layer: they keep what they are given, for a renderer to use and for anybody to read back.
 * Texels stay the caller's: a texture only points to them.
 *
 * A texture is a block of pfNewTex's arena, with the reference count of pfmemory.h: pfRef, pfUnref and pfDelete work on
 * it. No function takes a lock. A null texture, an object that is none, or a selector that is not named here, is reported on standard error and
 * changes nothing; reading from it gives 0.
 */
#ifndef TOLVIN_PERFORMER_PFTEXTURE_H
#define TOLVIN_PERFORMER_PFTEXTURE_H

#include "pfmemory.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct pfTexture pfTexture;

/* Selectors of pfTexRepeat: both directions, or one; the values of the latter are OpenGL's. */
#define PFTEX_WRAP 0x300
#define PFTEX_WRAP_S 0x2802
#define PFTEX_WRAP_T 0x2803

/* Modes of pfTexRepeat, OpenGL's. */
#define PFTEX_CLAMP 0x2900
#define PFTEX_REPEAT 0x2901

/* Selectors of pfTexFilter. */
#define PFTEX_MAGFILTER 1
#define PFTEX_MINFILTER 2

/* Selector of pfTexFormat. */
#define PFTEX_INTERNAL_FORMAT 1

/*
 * A new texture in the arena, or on the heap of the process for null: no image, PFTEX_REPEAT in both directions,
 * filters and internal format 0 (the renderer's choice). Null when there is no room, silently.
 */
PF_API pfTexture *pfNewTex(void *arena);

/*
 * Point the texture to an image: components (1 to 4) bytes a texel, sx * sy * sz texels, rows from the bottom. The
 * image must stay as long as the texture points to it; null takes it away.
 */
PF_API void pfTexImage(pfTexture *texture, unsigned int *image, int components, int sx, int sy, int sz);
/* Write image, components and sizes to where the pointers lead; each may be null. */
PF_API void pfGetTexImage(const pfTexture *texture, unsigned int **image, int *components, int *sx, int *sy, int *sz);

/* Set the wrap mode of a direction, or of both. Any mode is kept. */
PF_API void pfTexRepeat(pfTexture *texture, int which, int mode);
/* The wrap mode of PFTEX_WRAP_S or PFTEX_WRAP_T; of PFTEX_WRAP that of S. */
PF_API int pfGetTexRepeat(const pfTexture *texture, int which);

/* Set the filter of PFTEX_MAGFILTER or PFTEX_MINFILTER, and read it. Any value is kept. */
PF_API void pfTexFilter(pfTexture *texture, int which, int value);
PF_API int pfGetTexFilter(const pfTexture *texture, int which);

/* Set the value of PFTEX_INTERNAL_FORMAT, and read it. Any value is kept. */
PF_API void pfTexFormat(pfTexture *texture, int which, int value);
PF_API int pfGetTexFormat(const pfTexture *texture, int which);

#ifdef __cplusplus
}
#endif

#endif
