/*
 * Materials described by name, in named lists of the root node; loading makes materials of the platform layer of them.
 *
 * The application fills the records: value fields and mask of each material. Records come from pfMalloc, names lie in the shared
 * arena, too, of which materialFreeAll releases materials; lists are their owner's. Change lists from one process and thread at a
 * time. No argument may be null where nothing else is said.
 */
#ifndef TOLVIN_KERNEL_KERNELMATERIAL_H
#define TOLVIN_KERNEL_KERNELMATERIAL_H

#include "../performer/pfmaterial.h"
#include "kernelapi.h"
#include "kernelgeneric.h"
#include "kernelvunode.h"

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Bits of vuMaterial.mask: what the description gave. */
#define VU_MATERIAL_ALPHA 0x01
#define VU_MATERIAL_SHININESS 0x02
#define VU_MATERIAL_EMISSIVE 0x04
#define VU_MATERIAL_AMBIENT 0x08
#define VU_MATERIAL_DIFFUSE 0x10
#define VU_MATERIAL_SPECULAR 0x20

/* One material. The values hold, whatever the mask says: it tells only which of them were described. */
typedef struct vuMaterial
{
    vunode node;
    pfMaterial *mtl;  /* made by loading; null until then */
    uint32_t mask;    /* VU_MATERIAL_* */
    int32_t id;       /* sequence number in this process, from 0 */
    float ambient[3]; /* red, green, blue */
    float diffuse[3];
    float specular[3];
    float emissive[3];
    float shininess;
    float alpha;
} vuMaterial;

typedef struct vuMaterialList
{
    vunode node;
    vulist list;            /* the materials, in the order of the description */
    int32_t numMaterials;   /* made by the last load */
    vuMaterial **materials; /* as many as there are with a mtl, in list order, in the shared arena; or null */
} vuMaterialList;

/*
 * Initialise a material, raw memory so far: name copied (may be null), type VU_NODE_MATERIAL, no platform material,
 * mask 0, ambient 0.2, diffuse 0.8, specular and emissive 0, shininess 0, alpha 1, the next id. Returns the id.
 */
TOLVIN_API int materialInit(vuMaterial *material, const char *name);

/* Initialise a list, raw memory so far: name copied (may be null), no materials. */
TOLVIN_API void materialListInit(vuMaterialList *list, const char *name);

/*
 * Make the platform material of every material of the list that has none. Vertex colours stand in for ambient, diffuse
 * or both where the description left them open. Returns how many were made by this call; a material for which there is
 * no room stays unloaded, silently.
 */
TOLVIN_API int materialLoadList(vuMaterialList *list);

/*
 * Load all lists of the root node; prints "Num Mat: %d" ("Debug") for each. Returns the sum of what was made.
 *
 * numMaterials of each list becomes what was made for it by this call. A list for which that is more than 0 gets a new
 * array of all its loaded materials, those of earlier loads among them, and its former array is released; null when
 * there is no room for the array. Other lists keep the array they have.
 */
TOLVIN_API int materialListLoadList(vuRootNode *root);

/* First material of that name in the list, null when there is none. */
TOLVIN_API vuMaterial *materialFindNamed(const vuMaterialList *list, const char *name);

/* First material list of that name, null when there is none. */
TOLVIN_API vuMaterialList *materialListFindNamed(const vuRootNode *root, const char *name);

/* First material of that name over all lists in their order, null when there is none. */
TOLVIN_API vuMaterial *materialListSearchMaterialNamed(const vuRootNode *root, const char *name);

/* As above, with the list that holds it: 1 and both written, or 0 and neither touched. */
TOLVIN_API int materialListSearchMaterialAndList(const vuRootNode *root, const char *name, vuMaterial **material,
                                                 vuMaterialList **list);

TOLVIN_API int materialListsCount(const vuRootNode *root);

/* Number of materials in the list. A null list prints "NULL Materiallist" and counts 0. */
TOLVIN_API int materialsCount(const vuMaterialList *list);

/*
 * Release all materials of the list: for each, prints "Material: free <name>" on standard error, releases the name, the
 * platform material (unless somebody holds a reference to it) and the record. The list is empty then; numMaterials and
 * materials are not touched, so `materials` must not be followed any more: the next load that makes something releases
 * it, or the owner of the list with pfFree.
 */
TOLVIN_API void materialFreeAll(vuMaterialList *list);

/* Write the MATERIAL blocks of the list, as the application's description files have them. */
TOLVIN_API void materialPrintList(const vuMaterialList *list, FILE *stream);

/* Write all lists as MATERIALLIST blocks. */
TOLVIN_API void materialListPrintList(const vuRootNode *root, FILE *stream);

#ifdef __cplusplus
}
#endif

#endif
