/*
 * Textures described by name, in named lists of the root node; loading reads their image files and makes textures of the
 * platform layer of them.
 *
 * The application fills the records: file, mask, filters and internal format of each texture. Records come from pfMalloc,
 * names and texels lie in the shared arena, too. Lists, and the file names, are their owner's; textureFreeAll releases the rest. Change lists from one
 * process and thread at a time. No argument may be null where nothing else is said.
 */
#ifndef TOLVIN_KERNEL_KERNELTEXTURE_H
#define TOLVIN_KERNEL_KERNELTEXTURE_H

#include "../performer/pftexture.h"
#include "kernelapi.h"
#include "kernelgeneric.h"
#include "kernelvunode.h"

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Bits of vuTexture.mask. */
#define VU_TEXTURE_WRAP_S 0x10
#define VU_TEXTURE_WRAP_T 0x20

/* Bit of vuTextureList.mask. */
#define VU_TEXTURELIST_FPS 0x01

/*
 * Values of vuTexture.internal, the names that description files have for them, the number of components that each goes with,
 * and what is set then. Three set something else than their name says.
 *
 *   0          -                    any   nothing
 *   1, 2       LUMINANCE            1     GL_LUMINANCE8
 *   3          LUMINANCE_ALPHA      2     GL_LUMINANCE8_ALPHA8
 *   4          LUMINANCE4_ALPHA4    2     GL_LUMINANCE8_ALPHA8
 *   5          LUMINANCE12_ALPHA4   2     GL_LUMINANCE12_ALPHA4
 *   6          LUMINANCE16_ALPHA16  2     GL_LUMINANCE12_ALPHA4
 *   7, 8       INTENSITY            1     GL_LUMINANCE8
 *   9, 11      RGB                  none  nothing
 *   10         RGB4                 3     GL_RGB4
 *   12, 15     RGBA                 4     GL_RGBA8
 *   13         RGBA4                4     GL_RGBA4
 *   14         RGB5_A1              4     GL_RGB5_A1
 */

/* One texture. */
typedef struct vuTexture
{
    vunode node;
    char *file;     /* image file, looked for along TEXTURE_PATH and PFPATH; its owner's; or null */
    pfTexture *tex; /* made by loading; null until then */
    int32_t id;     /* sequence number in this process, from 0 */
    int32_t reserved0;
    uint32_t mask;     /* VU_TEXTURE_* */
    int32_t userValue; /* the application's; appears in dumps */
    int32_t width;     /* of the image, set by reading it */
    int32_t height;
    int16_t components; /* bytes a texel */
    int16_t minFilter;  /* 0 nearest, 3 and 4 the filter 0x4010, 5 the filter 0x8010, others linear */
    int16_t magFilter;  /* 0 nearest, others linear */
    int16_t reserved1;
    int16_t internal; /* code of the internal format, as above; 0 leaves it to the platform layer */
    int16_t reserved2;
    float colour1[4]; /* the application's */
    float colour2[4];
    uint8_t *image; /* texels, rows from the bottom, in the shared arena; null until read */
} vuTexture;

typedef struct vuTextureList
{
    vunode node;
    vulist list;          /* the textures, in the order of the description */
    uint32_t mask;        /* VU_TEXTURELIST_FPS: fps was described */
    double fps;           /* frames per second */
    int32_t numTextures;  /* loaded by the last load */
    vuTexture **textures; /* as many as there are with a tex, in list order, in the shared arena; or null */
} vuTextureList;

/*
 * Initialise a texture, raw memory so far: name copied (may be null), type VU_NODE_TEXTURE, no file, no platform texture, no
 * image, mask 0, linear filters, internal format 0, both colours 0.5 0.5 0.5 1, the next id. Returns the id.
 */
TOLVIN_API int textureInit(vuTexture *texture, const char *name);

/* Initialise a list, raw memory so far: name copied (may be null), type VU_NODE_TEXTURE_LIST, no textures, 25 frames/s. */
TOLVIN_API void textureListInit(vuTextureList *list, const char *name);

/*
 * Load every texture of the list that has a file and no platform texture yet: find the file (findFilePathName along
 * TEXTURE_PATH, then PFPATH unless memory ran out), read it (imageLoadSGI), make a platform texture with a reference on it, give it image and
 * attributes. Returns how many textures were loaded by this call.
 *
 * What cannot be found or opened is reported ("Warning"), what cannot be read as imageLoadSGI tells; both stay unloaded,
 * and the others go on. A texture for which there is no platform texture keeps its image; the next load releases that and
 * reads the file again. One that is loaded already is named on standard error. Prints a "Debug" line for each texture
 * that was opened, with the addresses (on a 64-bit target their low halves) of image and platform texture.
 */
TOLVIN_API int textureLoadList(vuTextureList *list);

/*
 * Load all lists of the root node. Returns the sum of what was loaded.
 *
 * numTextures of each list becomes what was loaded for it by this call. A list for which that is more than 0 gets a new
 * array of all its loaded textures, those of earlier loads among them, and its former array is released; null when there is
 * no room for the array. Other lists keep the array they have.
 */
TOLVIN_API int textureListLoadList(vuRootNode *root);

/*
 * Give the platform texture wrap modes (repeat where the mask says so, else clamp), filters and internal format of the
 * texture. An internal format that does not go with the number of components is reported ("Warning") and not set; RGB
 * (codes 9 and 11) never is.
 */
TOLVIN_API void textureApplyAttributes(pfTexture *tex, const vuTexture *texture);

/* First texture of that name, or with that file, in the list; null when there is none. */
TOLVIN_API vuTexture *textureFindNamed(const vuTextureList *list, const char *name);
TOLVIN_API vuTexture *textureFindFilename(const vuTextureList *list, const char *file);

/* First texture list of that name, null when there is none. */
TOLVIN_API vuTextureList *textureListFindNamed(const vuRootNode *root, const char *name);

/* First texture of that name, or with that file, over all lists in their order; null when there is none. */
TOLVIN_API vuTexture *textureListSearchTextureNamed(const vuRootNode *root, const char *name);
TOLVIN_API vuTexture *textureListSearchTextureFilename(const vuRootNode *root, const char *file);

/* As above by name, with the list that holds it: 1 and both written, or 0 and neither touched. */
TOLVIN_API int textureListSearchTextureAndList(const vuRootNode *root, const char *name, vuTexture **texture,
                                               vuTextureList **list);

TOLVIN_API int textureListsCount(const vuRootNode *root);

/* Number of textures in the list. A null list prints "NULL Texturelist" and counts 0. */
TOLVIN_API int texturesCount(const vuTextureList *list);

/*
 * Release all textures of the list: for each, prints "Texture: free <name>" on standard error, takes the image away from
 * the platform texture before its texels are released, gives back the reference that loading took, and releases name and
 * record; so whoever puts a platform texture into a record takes a reference for it. A platform texture to which nobody else holds a reference is released, too; others stay, without an image. The
 * list is empty then; numTextures and textures are not touched, so `textures` must not be followed any more. File names
 * stay their owner's.
 */
TOLVIN_API void textureFreeAll(vuTextureList *list);

/* Write the TEXTURE blocks of the list, as the application's description files have them. */
TOLVIN_API void texturePrintList(const vuTextureList *list, FILE *stream);

/* Write all lists as TEXTURELIST blocks. */
TOLVIN_API void textureListPrintList(const vuRootNode *root, FILE *stream);

#ifdef __cplusplus
}
#endif

#endif
