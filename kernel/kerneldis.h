/*
 * DIS time stamps and 3 x 3 matrices.
 *
 * A DIS time stamp (IEEE 1278.1) is an unsigned 32-bit word: bits 31 to 1 hold the time past the current hour in units
 * of one hour divided by 2^31, bit 0 is 1 for an absolute stamp (the sender's clock is synchronised) and 0 for a
 * relative one. A DIS matrix is nine floats in row-major order: element i is row i / 3, column i mod 3. No argument may be
 * null.
 */
#ifndef TOLVIN_KERNEL_KERNELDIS_H
#define TOLVIN_KERNEL_KERNELDIS_H

#include "kernelapi.h"

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef float vuDisMatrix[9];

/* Seconds past the hour of a stamp, 0 to 3600; bit 0 is ignored: (stamp >> 1) / 2147483647 * 3600. */
TOLVIN_API double disTimeSeconds(uint32_t timestamp);

/*
 * Stamp for the wall clock's current time, relative (bit 0 clear) or absolute (bit 0 set). The time past the hour is
 * scaled by 596523, so that a stamp reads back about 0.4 millionths short. A clock that cannot be read, as past January
 * 2038 with a 32-bit time_t, gives time 0, without a message.
 */
TOLVIN_API uint32_t disMakeRelTime(void);
TOLVIN_API uint32_t disMakeAbsTime(void);

/* Determinant by cofactors of the first column, in double precision. */
TOLVIN_API double disMatrixDet(const vuDisMatrix m);

/*
 * Inverse of m into result, which must not be m: the adjugate divided by the determinant. When the determinant's
 * magnitude is below 0.0005 the result is the identity, without a message; a determinant that is not a number is not
 * caught.
 */
TOLVIN_API void disMatrixInverse(vuDisMatrix result, const vuDisMatrix m);

/* Print the nine elements in storage order with " %12.4f" each, no line break. stream is a C FILE. */
TOLVIN_API void printDisMatrix(FILE *stream, const vuDisMatrix m);

#ifdef __cplusplus
}
#endif

#endif
