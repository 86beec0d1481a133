/*
 * Coordinate systems: groups whose children have their coordinates transformed by a matrix. That of an SCS is given once,
 * a DCS may change it at any time. A DCS is an SCS, and both are groups. Matrices must not be null where
 * nothing else is said. As in pfnode.h otherwise.
 */
#ifndef TOLVIN_PERFORMER_PFTRANSFORM_H
#define TOLVIN_PERFORMER_PFTRANSFORM_H

#include "pfnode.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct pfSCS pfSCS;
typedef struct pfDCS pfDCS;

PF_API pfType *pfGetSCSClassType(void);
PF_API pfType *pfGetDCSClassType(void);

/* New nodes; a null matrix, and that of a new DCS, is the identity. Null when there is no room, silently. */
PF_API pfSCS *pfNewSCS(const pfMatrix matrix, void *arena);
PF_API pfDCS *pfNewDCS(void *arena);

/* The matrix of an SCS or DCS: from coordinates of its children to those of its parents. dst keeps its values after a report. */
PF_API void pfGetSCSMat(const pfSCS *scs, pfMatrix dst);
PF_API void pfGetDCSMat(pfDCS *dcs, pfMatrix dst);

PF_API void pfDCSMat(pfDCS *dcs, const pfMatrix matrix);

/* Set the translation, the rest of the matrix stays. */
PF_API void pfDCSTrans(pfDCS *dcs, float x, float y, float z);
/* Set the rotation (pfMakeEulerMat, degrees), the translation stays; a scale goes. */
PF_API void pfDCSRot(pfDCS *dcs, float heading, float pitch, float roll);

#ifdef __cplusplus
}
#endif

#endif
