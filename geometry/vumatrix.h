/*
 * 4 x 4 matrices in single precision. A point is a row vector to the left of the matrix, p' = p M: rows 0 to 2 are the
 * transformed axes, row 3 is the translation. That is the memory layout of a pfMatrix.
 *
 * Angles are degrees. Nothing is allocated or reported; no matrix may be null, and each is 16 elements of the caller's.
 */
#ifndef TOLVIN_GEOMETRY_VUMATRIX_H
#define TOLVIN_GEOMETRY_VUMATRIX_H

#include "../kernel/kernelapi.h"
#include "../performer/pfmath.h"

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef float vuMatrix[4][4]; /* row, column */

TOLVIN_API void vuMakeIdentMatrix(vuMatrix m);
TOLVIN_API void vuCopyMatrix(vuMatrix dst, const vuMatrix src);
TOLVIN_API void vuMakeTranslationMatrix(vuMatrix m, float x, float y, float z);

/*
 * Rotation by an angle about an axis: a positive one turns y towards z, z towards x, and x towards y. The angle in radians
 * is rounded to single precision before its sine and cosine are taken.
 */
TOLVIN_API void vuMakeXRotationMatrix(vuMatrix m, float degrees);
TOLVIN_API void vuMakeYRotationMatrix(vuMatrix m, float degrees);
TOLVIN_API void vuMakeZRotationMatrix(vuMatrix m, float degrees);

TOLVIN_API void vuMakeScaleMatrix(vuMatrix m, float sx, float sy, float sz);
TOLVIN_API void vuMakeScaleXMatrix(vuMatrix m, float sx);
TOLVIN_API void vuMakeScaleYMatrix(vuMatrix m, float sy);
TOLVIN_API void vuMakeScaleZMatrix(vuMatrix m, float sz);

/*
 * a = a b, and a = b a. Each element is a sum of four products from 0 on, in double precision, rounded once. a and b may be
 * the same matrix. With row vectors, a b transforms by a first, then by b.
 */
TOLVIN_API void vuMakePostMultiplication(vuMatrix a, const vuMatrix b);
TOLVIN_API void vuMakePreMultiplication(vuMatrix a, const vuMatrix b);

/* Print a header line and a line for each row. */
TOLVIN_API void vuPrintMatrix(FILE *stream, const vuMatrix m);

/* Whether the matrix is exactly the identity, or exactly 0: 1 or 0. -0 is 0, NaN is neither. */
TOLVIN_API int vuMatrixIsIdentMat(const vuMatrix m);
TOLVIN_API int vuMatrixIsNullMat(const vuMatrix m);

/* Copies from and to matrices of the platform layer. */
TOLVIN_API void changeVuMatToPfMat(pfMatrix dst, const vuMatrix src);
TOLVIN_API void changePfMatToVuMat(vuMatrix dst, const pfMatrix src);

/*
 * Write the matrix to out, 16 doubles, column after column: what OpenGL and others take for column vectors. m itself is
 * transposed by it.
 */
TOLVIN_API void changePFMatToColMat(double *out, pfMatrix m);
TOLVIN_API void changeVuMatToColMat(double *out, vuMatrix m);

#ifdef __cplusplus
}
#endif

#endif
