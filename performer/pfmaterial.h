/*
 * Materials of the platform layer: they keep what they are given, for a renderer to use and for anybody to read back.
 *
 * A material is a block of pfNewMtl's arena, with the reference count of pfmemory.h: pfRef, pfUnref and pfDelete work
 * on it. No function takes a lock. A null material, an object that is none, or a selector that is not named here, is reported on standard error
 * and changes nothing; reading from it gives 0.
 */
#ifndef TOLVIN_PERFORMER_PFMATERIAL_H
#define TOLVIN_PERFORMER_PFMATERIAL_H

#include "pfmemory.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct pfMaterial pfMaterial;

/* Sides of a surface. */
#define PFMTL_FRONT 1
#define PFMTL_BACK 2
#define PFMTL_BOTH 3

/* Which colour; the values are OpenGL's. */
#define PFMTL_AMBIENT 0x1200
#define PFMTL_DIFFUSE 0x1201
#define PFMTL_SPECULAR 0x1202
#define PFMTL_EMISSION 0x1600

/* Which colour the colours of vertices stand in for: 0 for none, PFMTL_AMBIENT, PFMTL_DIFFUSE, or both. */
#define PFMTL_AMBIENT_AND_DIFFUSE 0x1602

/*
 * A new material in the arena, or on the heap of the process for null: colour mode 0 on both sides, ambient 0.2,
 * diffuse 0.8, specular and emission 0 (red, green and blue alike), shininess 0, alpha 1. Null when there is no room,
 * silently.
 */
PF_API pfMaterial *pfNewMtl(void *arena);

/* Set the colour mode of PFMTL_FRONT, PFMTL_BACK or PFMTL_BOTH sides. Any mode is kept. */
PF_API void pfMtlColorMode(pfMaterial *material, int side, int mode);
/* The colour mode of PFMTL_FRONT or PFMTL_BACK. */
PF_API int pfGetMtlColorMode(const pfMaterial *material, int side);

/* Set one of the four colours. Components are kept as they are, also outside 0 to 1. */
PF_API void pfMtlColor(pfMaterial *material, int which, float r, float g, float b);
/* Write one of the four colours to the three floats, which must not be null. */
PF_API void pfGetMtlColor(const pfMaterial *material, int which, float *r, float *g, float *b);

PF_API void pfMtlShininess(pfMaterial *material, float shininess);
PF_API float pfGetMtlShininess(const pfMaterial *material);

PF_API void pfMtlAlpha(pfMaterial *material, float alpha);
PF_API float pfGetMtlAlpha(const pfMaterial *material);

#ifdef __cplusplus
}
#endif

#endif
