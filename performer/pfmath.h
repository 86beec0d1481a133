/* Vectors, matrices and boxes of the platform layer. */
#ifndef TOLVIN_PERFORMER_PFMATH_H
#define TOLVIN_PERFORMER_PFMATH_H

#include "pfmemory.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef float pfVec3[3];
typedef float pfMatrix[4][4]; /* row, column; points are row vectors, row 3 is the translation */

/* An axis-aligned box. */
typedef struct pfBox
{
    pfVec3 min;
    pfVec3 max;
} pfBox;

/* dst = src; they may be the same. */
PF_API void pfCopyMat(pfMatrix dst, const pfMatrix src);

#ifdef __cplusplus
}
#endif

#endif
