#include "course.h"

#include <cmath>

namespace tolvin
{

namespace
{

constexpr int kFine = 64; // points of a piece before they are spaced evenly

double blended(double a, double b, double c, double d, double t)
{
    const double s = 1.0 - t;
    return (s * s * s * a + (3.0 * t * t * t - 6.0 * t * t + 4.0) * b + (3.0 * s * s * s - 6.0 * s * s + 4.0) * c +
            t * t * t * d) /
           6.0;
}

std::vector<Place> finePoints(std::span<const Place> controls, bool closed)
{
    const std::size_t count = controls.size();
    const std::size_t pieces = closed ? count : count - 3;
    std::vector<Place> points;
    points.reserve(pieces * kFine + 1);
    for (std::size_t i = 0; i <= pieces * kFine; ++i)
    {
        const std::size_t piece = i / kFine < pieces ? i / kFine : pieces - 1;
        const double t = static_cast<double>(i - piece * kFine) / kFine;
        const auto at = [&](std::size_t k) -> const Place & { return controls[(piece + k) % count]; };
        points.push_back({blended(at(0).east, at(1).east, at(2).east, at(3).east, t),
                          blended(at(0).north, at(1).north, at(2).north, at(3).north, t)});
    }
    return points;
}

} // namespace

double distance(const Place &a, const Place &b)
{
    const double east = b.east - a.east;
    const double north = b.north - a.north;
    return std::sqrt(east * east + north * north);
}

std::vector<Place> course(std::span<const Place> controls, double step, bool closed)
{
    const std::vector<Place> fine = finePoints(controls, closed);
    double total = 0.0;
    for (std::size_t i = 1; i < fine.size(); ++i)
    {
        total += distance(fine[i - 1], fine[i]);
    }
    const auto count = static_cast<std::size_t>(total / step) + 1;
    const double even = total / static_cast<double>(count);
    std::vector<Place> points;
    double behind = 0.0; // length up to fine[i - 1]
    for (std::size_t i = 1; i < fine.size(); ++i)
    {
        const double length = distance(fine[i - 1], fine[i]);
        while (points.size() < count && static_cast<double>(points.size()) * even <= behind + length)
        {
            const double share = (static_cast<double>(points.size()) * even - behind) / length;
            points.push_back({fine[i - 1].east + share * (fine[i].east - fine[i - 1].east),
                              fine[i - 1].north + share * (fine[i].north - fine[i - 1].north)});
        }
        behind += length;
    }
    return points;
}

} // namespace tolvin
