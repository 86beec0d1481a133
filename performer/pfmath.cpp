#include "pfmath.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>

namespace
{

struct SinCos
{
    double sin;
    double cos;
};

// Of an angle in degrees. Whole quarter turns are taken off first, without rounding, so that they are exact and large
// angles keep their precision.
SinCos sinCos(double degrees)
{
    constexpr double kLargest = 1e9; // up to here, quarters times 90 is exact
    const double angle = std::fabs(degrees) < kLargest ? degrees : std::fmod(degrees, 360.0);
    const double quarters = std::nearbyint(angle / 90.0);
    const double rest = (angle - quarters * 90.0) * (std::numbers::pi / 180.0);
    const double sine = std::sin(rest);
    const double cosine = std::cos(rest);
    switch (std::isfinite(quarters) ? static_cast<long long>(quarters) & 3 : 0)
    {
    case 1:
        return {cosine, -sine};
    case 2:
        return {-sine, -cosine};
    case 3:
        return {-cosine, sine};
    default:
        return {sine, cosine};
    }
}

// (v, w) m, the first three columns of it.
void transform(pfVec3 dst, const pfVec3 v, double w, const pfMatrix m)
{
    pfVec3 result;
    for (int column = 0; column < 3; ++column)
    {
        double sum = w * m[3][column];
        for (int row = 0; row < 3; ++row)
        {
            sum += static_cast<double>(v[row]) * m[row][column];
        }
        result[column] = static_cast<float>(sum);
    }
    std::copy_n(result, 3, dst);
}

} // namespace

void pfCopyMat(pfMatrix dst, const pfMatrix src)
{
    memmove(dst, src, sizeof(pfMatrix));
}

void pfMakeIdentMat(pfMatrix dst)
{
    pfMakeTransMat(dst, 0.0F, 0.0F, 0.0F);
}

void pfMakeTransMat(pfMatrix dst, float x, float y, float z)
{
    const pfMatrix made = {
        {1.0F, 0.0F, 0.0F, 0.0F}, {0.0F, 1.0F, 0.0F, 0.0F}, {0.0F, 0.0F, 1.0F, 0.0F}, {x, y, z, 1.0F}};
    pfCopyMat(dst, made);
}

void pfMakeEulerMat(pfMatrix dst, float heading, float pitch, float roll)
{
    const auto [sh, ch] = sinCos(heading);
    const auto [sp, cp] = sinCos(pitch);
    const auto [sr, cr] = sinCos(roll);
    const double turned[3][3] = {{cr * ch - sr * sp * sh, cr * sh + sr * sp * ch, -sr * cp},
                                 {-cp * sh, cp * ch, sp},
                                 {sr * ch + cr * sp * sh, sr * sh - cr * sp * ch, cr * cp}};
    pfMakeIdentMat(dst);
    for (int row = 0; row < 3; ++row)
    {
        std::copy_n(turned[row], 3, dst[row]);
    }
}

void pfMultMat(pfMatrix dst, const pfMatrix a, const pfMatrix b)
{
    pfMatrix product;
    for (int row = 0; row < 4; ++row)
    {
        for (int column = 0; column < 4; ++column)
        {
            double sum = 0.0;
            for (int i = 0; i < 4; ++i)
            {
                sum += static_cast<double>(a[row][i]) * b[i][column];
            }
            product[row][column] = static_cast<float>(sum);
        }
    }
    pfCopyMat(dst, product);
}

void pfXformPt3(pfVec3 dst, const pfVec3 v, const pfMatrix m)
{
    transform(dst, v, 1.0, m);
}

void pfXformVec3(pfVec3 dst, const pfVec3 v, const pfMatrix m)
{
    transform(dst, v, 0.0, m);
}

float pfDistancePt3(const pfVec3 a, const pfVec3 b)
{
    double sum = 0.0;
    for (int axis = 0; axis < 3; ++axis)
    {
        const double difference = static_cast<double>(a[axis]) - b[axis];
        sum += difference * difference;
    }
    return static_cast<float>(std::sqrt(sum));
}
