// Noise corner by corner, one operation after the other: the oracle of the tests, which expect the same bits, and the
// yardstick of the benchmarks.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace plain
{

// A CRC-16/ARC bit by bit.
inline uint16_t crc16(const unsigned char *bytes, size_t count)
{
    uint16_t crc = 0;
    for (size_t i = 0; i < 8 * count; ++i)
    {
        const int bit = (crc ^ (bytes[i / 8] >> i % 8)) & 1;
        crc = static_cast<uint16_t>(crc >> 1 ^ (bit ? 0xA001 : 0));
    }
    return crc;
}

struct NoiseTables
{
    std::array<uint16_t, 4096> hash;
    std::array<float, 267> coefficients;

    // Restarts the sequence of rand().
    NoiseTables()
    {
        std::srand(0);
        for (size_t k = 0; k < hash.size(); ++k)
        {
            hash[k] = static_cast<uint16_t>(k);
        }
        for (size_t k = hash.size(); k-- > 0;)
        {
            std::swap(hash[k], hash[static_cast<size_t>(std::rand()) % hash.size()]);
        }
        for (size_t i = 0; i < coefficients.size(); ++i)
        {
            float vector[3];
            std::fill_n(vector, 3, static_cast<float>(i) * 0.12345F);
            unsigned char bytes[sizeof vector];
            std::memcpy(bytes, vector, sizeof vector);
            coefficients[i] = static_cast<float>(crc16(bytes, sizeof bytes) * double{3.0518044e-5F} - 1.0);
        }
    }

    // The unclamped value, or component c of the vector, each with its order of corners.
    float at(const float (&point)[3], int c, const int (&order)[8]) const
    {
        int cell[3];
        float f[3], s[3];
        for (int axis = 0; axis < 3; ++axis)
        {
            const float moved = point[axis] + 10000.0F;
            cell[axis] = static_cast<int>(std::floor(moved));
            f[axis] = moved - std::floor(moved);
            s[axis] = (3.0F - 2.0F * f[axis]) * (f[axis] * f[axis]);
        }
        float sum = 0.0F;
        for (const int corner : order)
        {
            int index[3];
            float d[3], weight[3];
            for (int axis = 0; axis < 3; ++axis)
            {
                const int high = corner >> axis & 1;
                index[axis] = (cell[axis] + high) & 0xFFF;
                d[axis] = f[axis] - static_cast<float>(high);
                weight[axis] = high ? s[axis] : 1.0F - s[axis];
            }
            const float *r = &coefficients[hash[hash[hash[index[0]] ^ index[1]] ^ index[2]] & 0xFF] + 4 * c;
            const float term = 0.5F * r[0] + r[1] * d[0] + r[2] * d[1] + r[3] * d[2];
            sum += term * (weight[0] * (weight[1] * weight[2]));
        }
        return sum;
    }

    double noise(float x, float y, float z) const
    {
        return std::clamp(at({x, y, z}, 0, {0, 1, 2, 3, 4, 5, 6, 7}) + 0.5F, 0.0F, 1.0F);
    }

    std::array<float, 3> noise3D(float x, float y, float z) const
    {
        std::array<float, 3> result;
        for (int c = 0; c < 3; ++c)
        {
            result[static_cast<size_t>(c)] = at({x, y, z}, c, {0, 1, 3, 2, 6, 7, 5, 4});
        }
        return result;
    }
};

} // namespace plain
