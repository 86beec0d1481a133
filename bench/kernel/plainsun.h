// The sun's series term by term, with the C library's functions: the oracle of the tests and the yardstick of the
// benchmarks.
#pragma once

#include <cmath>
#include <tolvin/kernel/kernelvutimetables.hpp>

namespace plain
{

inline constexpr double kTurn = 6.283185307179586;
inline constexpr double kArcsecond = kTurn / 1296000.0;

// Heliocentric longitude, latitude and radius of the Earth, as vsop87sun gives them.
inline void earth(double mjd, double (&result)[3])
{
    const double tau = (mjd - 36525.0) / 365250.0;
    for (int c = 0; c < 3; ++c)
    {
        result[c] = 0.0;
        for (int k = 0; vn_earth[k + 1][c] != 0; ++k)
        {
            const double change = k == 0 ? 0.0 : k * std::pow(std::fabs(tau), k - 1) * 1e-4;
            const double threshold = 100.00000000000001 / 3.0 / (std::pow(std::fabs(tau), k) + change + 1e-35);
            double sum = 0.0;
            for (int i = vn_earth[k][c]; i < vn_earth[k + 1][c]; ++i)
            {
                const auto &[a, b, rate] = vx_earth[i];
                if (!(a < threshold))
                {
                    sum += a * std::cos(b + rate * tau);
                }
            }
            result[c] += std::pow(tau, k) * sum / 1e8;
        }
    }
    auto &[longitude, latitude, radius] = result;
    longitude -= std::floor(longitude / kTurn) * kTurn;
    const double turned = longitude - (13.97 * tau - 0.031 * tau * tau) * kTurn / 360.0;
    const double correction = 0.03916 * (std::cos(turned) + std::sin(turned)) * std::tan(latitude);
    longitude += (correction - 0.09033) * kArcsecond;
    latitude += 0.03916 * (std::cos(turned) - std::sin(turned)) * kArcsecond;
}

// Nutation in obliquity and longitude.
inline void nutation(double mjd, double &deps, double &dpsi)
{
    const double t = (mjd - 36525.0) / 36525.0;
    double arguments[5];
    for (int j = 0; j < 5; ++j)
    {
        const auto &[c0, c1, c2, c3] = delaunay[j];
        arguments[j] = std::fmod((c0 + t * (c1 + t * (c2 + t * c3))) * kArcsecond, kTurn);
    }
    deps = dpsi = 0.0;
    const auto *secular = ampsecul;
    for (int n = 0; n < 106; ++n)
    {
        double argument = 0.0;
        for (int j = 0; j < 5; ++j)
        {
            argument += multarg[n][j] * arguments[j];
        }
        double s = ampconst[n][0], c = ampconst[n][1];
        if (s == 0.0 && c == 0.0)
        {
            const auto &row = *secular++;
            s = row[1] + row[2] * t / 10.0;
            c = row[3] + row[4] * t / 10.0;
        }
        dpsi += s * std::sin(argument) * 1e-4 * kArcsecond;
        deps += c * std::cos(argument) * 1e-4 * kArcsecond;
    }
}

} // namespace plain
