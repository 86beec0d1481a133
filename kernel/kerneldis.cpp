#include "kerneldis.h"

#include <array>
#include <cmath>
#include <sys/time.h>

namespace
{

constexpr double kSecondsPerHour = 3600.0;
constexpr double kStampMax = 2147483647.0;    // all of bits 31 to 1
constexpr double kStampsPerSecond = 596523.0; // 2^31 / 3600, rounded down
constexpr double kSingularDeterminant = 0.0005;
constexpr uint32_t kAbsoluteBit = 1;

using WideMatrix = std::array<double, 9>;

// Products of two floats are exact in double, so a difference of two products is rounded only once.
WideMatrix widen(const float *m)
{
    return {m[0], m[1], m[2], m[3], m[4], m[5], m[6], m[7], m[8]};
}

double determinant(const WideMatrix &m)
{
    return m[0] * (m[4] * m[8] - m[7] * m[5]) - m[3] * (m[1] * m[8] - m[7] * m[2]) + m[6] * (m[1] * m[5] - m[4] * m[2]);
}

} // namespace

double disTimeSeconds(uint32_t timestamp)
{
    return (timestamp >> 1) / kStampMax * kSecondsPerHour;
}

uint32_t disMakeRelTime(void)
{
    timeval now = {};
    gettimeofday(&now, nullptr);
    const double seconds = static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_usec) / 1000000.0;
    const double pastHour = std::fmod(seconds, kSecondsPerHour);

    // A clock set before 1970 gives a negative time, which a direct conversion to uint32_t would not survive.
    const auto units = static_cast<int64_t>(pastHour * kStampsPerSecond);
    return static_cast<uint32_t>(units) << 1;
}

uint32_t disMakeAbsTime(void)
{
    return disMakeRelTime() | kAbsoluteBit;
}

double disMatrixDet(const vuDisMatrix m)
{
    return determinant(widen(m));
}

void disMatrixInverse(vuDisMatrix result, const vuDisMatrix matrix)
{
    const WideMatrix m = widen(matrix);
    const double d = determinant(m);

    // Written so that NaN goes on to the division and shows in the result.
    if (std::fabs(d) < kSingularDeterminant)
    {
        for (int i = 0; i < 9; ++i)
        {
            result[i] = i % 4 == 0 ? 1.0F : 0.0F;
        }
        return;
    }

    const WideMatrix inverse = {
        (m[4] * m[8] - m[7] * m[5]) / d,  -(m[1] * m[8] - m[7] * m[2]) / d, (m[1] * m[5] - m[2] * m[4]) / d,
        -(m[3] * m[8] - m[5] * m[6]) / d, (m[0] * m[8] - m[2] * m[6]) / d,  -(m[0] * m[5] - m[2] * m[3]) / d,
        (m[3] * m[7] - m[4] * m[6]) / d,  -(m[0] * m[7] - m[1] * m[6]) / d, (m[0] * m[4] - m[3] * m[1]) / d};
    for (int i = 0; i < 9; ++i)
    {
        result[i] = static_cast<float>(inverse[i]);
    }
}

void printDisMatrix(FILE *stream, const vuDisMatrix m)
{
    for (int i = 0; i < 9; ++i)
    {
        fprintf(stream, " %12.4f", static_cast<double>(m[i]));
    }
}
