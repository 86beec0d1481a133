/*
 * Solid noise in Perlin's manner: a pseudo-random value and gradient at every point of the integer lattice, blended in
 * between by the cubic s-curve (K. Perlin, An Image Synthesizer, SIGGRAPH 1985), and sums of octaves of it. Value and
 * gradient are continuous everywhere.
 *
 * The lattice repeats every 4096 units along each axis. Coordinates are moved by +10000 and rounded to single precision
 * before anything else, so near the origin they count in steps of 1/1024, and far out in coarser ones. Any value is
 * accepted; where 32-bit integers do not reach, and for NaN, the noise is that of some lattice point.
 *
 * All that evaluates noise needs the tables: call noiseInitialize first, and go on only if it returned 1. Evaluation
 * allocates nothing, reports nothing, and may run in several threads and processes at once; initialisation and release may
 * not run beside it or each other. Processes share the tables that were made before they were forked: one of them releases
 * them, when none evaluates noise any more, and the others must not use or release them then.
 */
#ifndef TOLVIN_KERNEL_KERNELNOISE_H
#define TOLVIN_KERNEL_KERNELNOISE_H

#include "kernelapi.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Make the two tables in the shared arena, where they are missing: a permutation shuffled by the C library's rand() after
 * srand(0), and coefficients in [-1, 1] from CRC-16 sums. The same tables every time, provided that no other thread calls
 * rand() or srand() meanwhile.
 *
 * Restarts the process's rand() sequence on every call, also when nothing has to be made. Returns 1 when both tables exist;
 * 0, with an "Error" line, when one could not be allocated, for want of room or of the arena itself: what was made stays,
 * and a later call tries again.
 */
TOLVIN_API int noiseInitialize(void);

/* Release both tables. Nothing may evaluate noise until noiseInitialize has made them again. */
TOLVIN_API void noiseFree(void);

/* Noise at a point, in [0, 1], on average about one half; a single-precision value. */
TOLVIN_API double noise(float x, float y, float z);

/*
 * Sum of octaves: noise(p) + a noise(f p) + a^2 noise(f^2 p) + ..., `octaves` terms, at least one; a and f are the two
 * factors, their powers and the scaled coordinates single precision, the sum double. Not clamped: it may exceed 1.
 */
TOLVIN_API double turbulence(float x, float y, float z, float amplitudeFactor, float frequencyFactor, int octaves);

/* Vector-valued noise at a point: three independent components around 0, in [-3.5, 3.5]. result must not be null. */
TOLVIN_API void noise3D(float result[3], float x, float y, float z);

/* Sum of octaves of noise3D, as turbulence sums noise; each component in single precision. */
TOLVIN_API void turbulence3D(float result[3], float x, float y, float z, float amplitudeFactor, float frequencyFactor,
                             int octaves);

/*
 * Addition: a regular grid of points for the functions below. Point (i, j, k) has the coordinates origin + index * step
 * of each axis; index, product and sum are rounded to single precision. A count of 0 or less on any axis makes an empty
 * grid.
 */
typedef struct noiseGridPoints
{
    float origin[3];  /* x, y, z of point (0, 0, 0) */
    float step[3];    /* distance between neighbours along each axis; any value */
    int32_t count[3]; /* points along x, y, z */
} noiseGridPoints;

/*
 * Additions: the four functions above at every point of a grid, bit for bit what a loop over the points gives, in a
 * fraction of the time if there are four points or more along x; with AVX2 where the processor has it.
 *
 * result  written: one value (of three components for the vector forms) per point, x fastest, then y, then z. It must not
 *         overlap grid. An empty grid writes nothing, and result may be null.
 */
TOLVIN_API void noiseGrid(double *result, const noiseGridPoints *grid);
TOLVIN_API void turbulenceGrid(double *result, const noiseGridPoints *grid, float amplitudeFactor,
                               float frequencyFactor, int octaves);
TOLVIN_API void noise3DGrid(float (*result)[3], const noiseGridPoints *grid);
TOLVIN_API void turbulence3DGrid(float (*result)[3], const noiseGridPoints *grid, float amplitudeFactor,
                                 float frequencyFactor, int octaves);

/*
 * CRC-16/ARC of count bytes: polynomial 0x8005 reflected, start 0, no final exclusive or. The check value of "123456789" is
 * 0xBB3D; no bytes, or a negative count, give 0.
 */
TOLVIN_API int noiseCrc16(const void *bytes, int count);

/*
 * Multiply the three components by 0.12345 in place and return the CRC-16/ARC of their 12 bytes, 0 to 65535: a
 * pseudo-random number of a vector.
 */
TOLVIN_API int R(float vector[3]);

/*
 * result = vector divided by its length; (0, 0, 1) when the length is not greater than 1e-8 (NaN included). Components
 * that are infinite give NaN. result may be vector itself.
 */
TOLVIN_API void VNormalize(float result[3], const float vector[3]);

#ifdef __cplusplus
}
#endif

#endif
