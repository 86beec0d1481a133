#include "vumatrix.h"

#include "../kernel/kernellanes.hpp"

#include <immintrin.h>

#include <cmath>
#include <cstring>

namespace
{

constexpr double kRadiansPerDegree = 0.017453292519943295;

struct Turn
{
    float c; // cosine
    float s; // sine
};

Turn turnBy(float degrees)
{
    const auto angle = static_cast<float>(degrees * kRadiansPerDegree);
    return {static_cast<float>(std::cos(double{angle})), static_cast<float>(std::sin(double{angle}))};
}

// What this processor can do. Until that is asked, when the library is loaded, it is nothing beyond what all can. Tests
// compile the module once more with TOLVIN_WITHOUT_AVX512.
const bool kHasFma = hasAvx2() && __builtin_cpu_supports("fma");
#ifdef TOLVIN_WITHOUT_AVX512
const bool kHasAvx512 = false;
#else
const bool kHasAvx512 = kHasFma && __builtin_cpu_supports("avx512vl");
#endif

// The following write the product of left and right to out, which may be one of them or both: all of right is read before
// a row is written, and a row of left before the same row of out. Products of single-precision numbers are exact in
// double, so that multiplication and addition may be one instruction or two. Sums start from 0 because four times -0 is
// to give +0.

void multiplySse2(vuMatrix out, const vuMatrix left, const vuMatrix right)
{
    __m128d front[4], back[4]; // halves of the rows of right
    UNROLL
    for (int k = 0; k < 4; ++k)
    {
        const __m128 row = _mm_loadu_ps(right[k]);
        front[k] = _mm_cvtps_pd(row);
        back[k] = _mm_cvtps_pd(_mm_movehl_ps(row, row));
    }
    UNROLL
    for (int i = 0; i < 4; ++i)
    {
        const __m128 row = _mm_loadu_ps(left[i]);
        const __m128d low = _mm_cvtps_pd(row), high = _mm_cvtps_pd(_mm_movehl_ps(row, row));
        const __m128d elements[4] = {_mm_unpacklo_pd(low, low), _mm_unpackhi_pd(low, low), _mm_unpacklo_pd(high, high),
                                     _mm_unpackhi_pd(high, high)};
        __m128d first = {}, second = {};
        UNROLL
        for (int k = 0; k < 4; ++k)
        {
            first += elements[k] * front[k];
            second += elements[k] * back[k];
        }
        _mm_storeu_ps(out[i], _mm_movelh_ps(_mm_cvtpd_ps(first), _mm_cvtpd_ps(second)));
    }
}

[[gnu::target("avx2,fma")]] void multiplyFma(vuMatrix out, const vuMatrix left, const vuMatrix right)
{
    __m256d rows[4];
    UNROLL
    for (int k = 0; k < 4; ++k)
    {
        rows[k] = _mm256_cvtps_pd(_mm_loadu_ps(right[k]));
    }
    UNROLL
    for (int i = 0; i < 4; ++i)
    {
        const __m256d row = _mm256_cvtps_pd(_mm_loadu_ps(left[i]));
        __m256d sum = _mm256_fmadd_pd(_mm256_permute4x64_pd(row, 0x00), rows[0], _mm256_setzero_pd());
        sum = _mm256_fmadd_pd(_mm256_permute4x64_pd(row, 0x55), rows[1], sum);
        sum = _mm256_fmadd_pd(_mm256_permute4x64_pd(row, 0xAA), rows[2], sum);
        sum = _mm256_fmadd_pd(_mm256_permute4x64_pd(row, 0xFF), rows[3], sum);
        _mm_storeu_ps(out[i], _mm256_cvtpd_ps(sum));
    }
}

// The same with AVX-512's conversion of one element to all four lanes, of which g++ 12 would make two slower instructions.
[[gnu::target("avx512vl,fma")]] void multiplyAvx512(vuMatrix out, const vuMatrix left, const vuMatrix right)
{
    __m256d sums[4] = {};
    UNROLL
    for (int k = 0; k < 4; ++k)
    {
        const __m256d row = _mm256_cvtps_pd(_mm_loadu_ps(right[k]));
        UNROLL
        for (int i = 0; i < 4; ++i)
        {
            __m256d element;
            asm("vcvtps2pd %1%{1to4%}, %0" : "=v"(element) : "m"(left[i][k]));
            sums[i] = _mm256_fmadd_pd(element, row, sums[i]);
        }
    }
    UNROLL
    for (int i = 0; i < 4; ++i)
    {
        _mm_storeu_ps(out[i], _mm256_cvtpd_ps(sums[i]));
    }
}

INLINE void multiply(vuMatrix out, const vuMatrix left, const vuMatrix right)
{
    if (kHasAvx512)
    {
        multiplyAvx512(out, left, right);
    }
    else if (kHasFma)
    {
        multiplyFma(out, left, right);
    }
    else
    {
        multiplySse2(out, left, right);
    }
}

// Whether the diagonal is all this, and the rest 0.
int isDiagonal(const vuMatrix m, float diagonal)
{
    for (int row = 0; row < 4; ++row)
    {
        for (int column = 0; column < 4; ++column)
        {
            if (!(m[row][column] == (row == column ? diagonal : 0.0F)))
            {
                return 0;
            }
        }
    }
    return 1;
}

void toColumns(double *out, float (*m)[4], const vuMatrix given)
{
    for (int row = 0; row < 4; ++row)
    {
        for (int column = 0; column < 4; ++column)
        {
            m[column][row] = given[row][column];
            out[4 * column + row] = given[row][column];
        }
    }
}

} // namespace

void vuMakeIdentMatrix(vuMatrix m)
{
    vuMakeScaleMatrix(m, 1, 1, 1);
}

void vuCopyMatrix(vuMatrix dst, const vuMatrix src)
{
    memmove(dst, src, sizeof(vuMatrix));
}

void vuMakeTranslationMatrix(vuMatrix m, float x, float y, float z)
{
    const vuMatrix translation = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {x, y, z, 1}};
    vuCopyMatrix(m, translation);
}

void vuMakeXRotationMatrix(vuMatrix m, float degrees)
{
    const auto [c, s] = turnBy(degrees);
    const vuMatrix rotation = {{1, 0, 0, 0}, {0, c, s, 0}, {0, -s, c, 0}, {0, 0, 0, 1}};
    vuCopyMatrix(m, rotation);
}

void vuMakeYRotationMatrix(vuMatrix m, float degrees)
{
    const auto [c, s] = turnBy(degrees);
    const vuMatrix rotation = {{c, 0, -s, 0}, {0, 1, 0, 0}, {s, 0, c, 0}, {0, 0, 0, 1}};
    vuCopyMatrix(m, rotation);
}

void vuMakeZRotationMatrix(vuMatrix m, float degrees)
{
    const auto [c, s] = turnBy(degrees);
    const vuMatrix rotation = {{c, s, 0, 0}, {-s, c, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}};
    vuCopyMatrix(m, rotation);
}

void vuMakeScaleMatrix(vuMatrix m, float sx, float sy, float sz)
{
    const vuMatrix scale = {{sx, 0, 0, 0}, {0, sy, 0, 0}, {0, 0, sz, 0}, {0, 0, 0, 1}};
    vuCopyMatrix(m, scale);
}

void vuMakeScaleXMatrix(vuMatrix m, float sx)
{
    vuMakeScaleMatrix(m, sx, 1, 1);
}

void vuMakeScaleYMatrix(vuMatrix m, float sy)
{
    vuMakeScaleMatrix(m, 1, sy, 1);
}

void vuMakeScaleZMatrix(vuMatrix m, float sz)
{
    vuMakeScaleMatrix(m, 1, 1, sz);
}

void vuMakePostMultiplication(vuMatrix a, const vuMatrix b)
{
    multiply(a, a, b);
}

void vuMakePreMultiplication(vuMatrix a, const vuMatrix b)
{
    multiply(a, b, a);
}

void vuPrintMatrix(FILE *stream, const vuMatrix m)
{
    fprintf(stream,
            "vuMatrix:\n      %f %f %f %f\n      %f %f %f %f\n      %f %f %f %f\n      %f %f %f %f\n", //
            m[0][0], m[0][1], m[0][2], m[0][3], m[1][0], m[1][1], m[1][2], m[1][3], m[2][0], m[2][1], m[2][2], m[2][3],
            m[3][0], m[3][1], m[3][2], m[3][3]);
}

int vuMatrixIsIdentMat(const vuMatrix m)
{
    return isDiagonal(m, 1);
}

int vuMatrixIsNullMat(const vuMatrix m)
{
    return isDiagonal(m, 0);
}

void changeVuMatToPfMat(pfMatrix dst, const vuMatrix src)
{
    vuCopyMatrix(dst, src);
}

void changePfMatToVuMat(vuMatrix dst, const pfMatrix src)
{
    vuCopyMatrix(dst, src);
}

void changePFMatToColMat(double *out, pfMatrix m)
{
    pfMatrix given;
    pfCopyMat(given, m);
    toColumns(out, m, given);
}

void changeVuMatToColMat(double *out, vuMatrix m)
{
    vuMatrix given;
    vuCopyMatrix(given, m);
    toColumns(out, m, given);
}
