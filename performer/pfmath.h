/*
 * Vectors, matrices and boxes of the platform layer. No pointer may be null; nothing is reported. C before C23 knows no way from
 * a pfMatrix to a const one without a warning when it is pedantic: such callers cast.
 */
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

PF_API void pfMakeIdentMat(pfMatrix dst);
PF_API void pfMakeTransMat(pfMatrix dst, float x, float y, float z);

/*
 * Heading, pitch and roll in degrees: turns by roll about y, then by pitch about x, then by heading about z, all
 * counter-clockwise seen from the end of the axis. With y ahead, x to the right and z up, a positive heading turns left, a
 * positive pitch lifts the nose, a positive roll lowers the right side. Sines and cosines are taken in double precision.
 */
PF_API void pfMakeEulerMat(pfMatrix dst, float heading, float pitch, float roll);

/* dst = a b, which transforms by a first, then by b; dst may be either. Sums in double precision, rounded once. */
PF_API void pfMultMat(pfMatrix dst, const pfMatrix a, const pfMatrix b);

/*
 * dst = v m for the point v, (v, 1) times the first three columns; dst may be v. Sums in double precision, rounded once.
 * pfXformVec3 leaves the translation out.
 */
PF_API void pfXformPt3(pfVec3 dst, const pfVec3 v, const pfMatrix m);
PF_API void pfXformVec3(pfVec3 dst, const pfVec3 v, const pfMatrix m);

/* The distance of two points, in double precision, rounded once. */
PF_API float pfDistancePt3(const pfVec3 a, const pfVec3 b);

#ifdef __cplusplus
}
#endif

#endif
