/*
 * Entity coordinate systems: they place a model in the scene. Dynamic and static ones (DCS, SCS) differ in their type only.
 * A corner c of the model goes to c orientationMat positionMat, as in vudbNodeTransformBoundingBox.
 *
 * Records come from malloc: the free functions, and vudbGroupDeleteHierarchy, release them. Misuse is reported on standard
 * error (module vuDB/vudbEntity) and changes nothing. Matrices must not be null.
 */
#ifndef TOLVIN_VUDB_VUDBENTITY_H
#define TOLVIN_VUDB_VUDBENTITY_H

#include "vudbGroup.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct vudbEntityDCS
{
    vudbGroup group;
    vudbNode *model; /* not the entity's; or null */
    vuMatrix positionMat;
    vuMatrix orientationMat;
} vudbEntityDCS;

typedef vudbEntityDCS vudbEntitySCS;

/*
 * As vudbGroupInit, VUDB_ENTITYDCS or VUDB_ENTITYSCS, both matrices the identity, with the box of the model (of size 0 where
 * that has none). A null model is reported, and leaves the entity without box and model.
 */
TOLVIN_API void vudbEntityDCSInit(vudbEntityDCS *node, const char *name, vudbNode *model);
TOLVIN_API void vudbEntitySCSInit(vudbEntitySCS *node, const char *name, vudbNode *model);

/* Release what the entity owns, and its record. */
TOLVIN_API void vudbEntityDCSFree(vudbEntityDCS *node);
TOLVIN_API void vudbEntitySCSFree(vudbEntitySCS *node);

/* Copies to and from the two matrices. */
TOLVIN_API void vudbEntityDCSSetPositionMat(vudbEntityDCS *node, const vuMatrix mat);
TOLVIN_API void vudbEntitySCSSetPositionMat(vudbEntitySCS *node, const vuMatrix mat);
TOLVIN_API void vudbEntityDCSSetOrientationMat(vudbEntityDCS *node, const vuMatrix mat);
TOLVIN_API void vudbEntitySCSSetOrientationMat(vudbEntitySCS *node, const vuMatrix mat);
TOLVIN_API void vudbEntityDCSGetPositionMat(const vudbEntityDCS *node, vuMatrix out);
TOLVIN_API void vudbEntitySCSGetPositionMat(const vudbEntitySCS *node, vuMatrix out);
TOLVIN_API void vudbEntityDCSGetOrientationMat(const vudbEntityDCS *node, vuMatrix out);
TOLVIN_API void vudbEntitySCSGetOrientationMat(const vudbEntitySCS *node, vuMatrix out);

#ifdef __cplusplus
}
#endif

#endif
